#pragma once

// An application interface with a scene and nothing else (no window, no view): enough for the
// code that only changes the scene, in tests and in the fuzz target.

#include "tzApplicationInterface.h"

#include <QStringList>

#include <algorithm>
#include <memory>

class tzSceneApp : public tzApplicationInterface
{
public:
    tzSceneApp()
        : m_root(std::make_unique<tzHObject>(QStringLiteral("DB Tree")))
    {
    }

    tzGLWindow *activeView() override { return nullptr; }
    QMainWindow *mainWindow() override { return nullptr; }
    tzHObject *databaseRoot() override { return m_root.get(); }
    tzPickingHub *pickingHub() override { return nullptr; }
    const tzHObject::Container &selectedObjects() const override { return m_selected; }
    void attachOverlayDialog(tzOverlayDialog *, Qt::Corner) override { }
    void detachOverlayDialog(tzOverlayDialog *) override { }
    void printToConsole(const QString &text, int) override { console << text; }
    void addToDatabase(tzHObject *object, bool, bool, bool, bool) override
    {
        if (object && !object->getParent())
            m_root->addChild(object);
        ++added;
    }
    void removeFromDatabase(tzHObject *object, bool autoDelete) override
    {
        if (!object || object == m_root.get())
            return;
        ++removed;
        tzHObject *parent = object->getParent();
        const bool owned = parent && (parent->getDependencyFlagsWith(object) & DP_DELETE_OTHER);
        if (parent && autoDelete && owned) {
            parent->removeChild(object);
            return;
        }
        if (parent)
            parent->detachChild(object);
        if (autoDelete)
            delete object;
    }
    void refreshAllViews(bool) override { ++refreshes; }
    tzUniqueIDGenerator::Shared getUniqueIDGenerator() override
    {
        return tzObject::GetUniqueIDGenerator();
    }
    //! Empties the scene.
    void reset()
    {
        m_root = std::make_unique<tzHObject>(QStringLiteral("DB Tree"));
        added = removed = refreshes = 0;
        console.clear();
    }

    int added = 0;
    int removed = 0;
    int refreshes = 0;
    QStringList console;

private:
    std::unique_ptr<tzHObject> m_root;
    tzHObject::Container m_selected;
};
