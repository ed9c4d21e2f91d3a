#pragma once

#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>

class QAction;
class QPluginLoader;
class tzApplicationInterface;
class tzStdPluginInterface;

//! Finds, loads and unloads the viewer's plug-ins. Failures go to the console with the file's
//! path and the loader's error; a failing plug-in never stops the others.
class tzPluginManager : public QObject
{
    Q_OBJECT

public:
    struct Plugin
    {
        QString path;
        QPluginLoader *loader = nullptr;
        tzStdPluginInterface *instance = nullptr;
        QList<QAction *> actions;
    };

    explicit tzPluginManager(tzApplicationInterface *app, QObject *parent = nullptr);
    ~tzPluginManager() override;

    //! The folders searched: plugins/ beside the executable (and beside its folder, for a
    //! build tree), then each folder of TESSARO_PLUGIN_PATH.
    static QStringList searchPaths();
    //! Loads every plug-in file of the folders; returns how many were loaded.
    int loadAll(const QStringList &folders = searchPaths());
    //! Loads one file; false (and a console message) when it is not a usable plug-in.
    bool load(const QString &path);
    //! Stops every plug-in, then unloads it.
    void unloadAll();

    const QList<Plugin> &plugins() const { return m_plugins; }

private:
    tzApplicationInterface *m_app;
    QList<Plugin> m_plugins;
};
