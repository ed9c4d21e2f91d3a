#pragma once

#include "qtz_db_global.h"
#include "tzDrawContext.h"

#include <QColor>

//! Display state shared by every drawable: visibility, selection, temporary colour, name shown
//! in 3D, and the view the object is shown in.
class QTZ_DB_LIB_API tzDrawableObject
{
public:
    virtual ~tzDrawableObject() = default;

    virtual void draw(tzDrawContext &context) = 0;

    bool isVisible() const { return m_visible; }
    virtual void setVisible(bool state) { m_visible = state; }
    void toggleVisibility() { setVisible(!m_visible); }

    //! An object that is not pickable is left out of the views' picking passes (a preview that
    //! follows the cursor must not catch the click meant for what lies under it).
    bool isPickable() const { return m_pickable; }
    void setPickable(bool state) { m_pickable = state; }
    //! Lines laid on the ground (a surveying application's alignments and symbols) are picked only
    //! by a click right on them, so that a click beside one reaches the ground it lies on; other
    //! objects are picked within the view's wider tolerance.
    bool isPickedOnlyOnItsLines() const { return m_pickedOnlyOnLines; }
    void setPickedOnlyOnItsLines(bool state) { m_pickedOnlyOnLines = state; }
    bool isSelected() const { return m_selected; }
    virtual void setSelected(bool state) { m_selected = state; }

    //! A colour that overrides the object's own while set (highlighting).
    virtual void setTempColor(const QColor &color, bool autoActivate = true)
    {
        m_tempColor = color;
        if (autoActivate)
            m_tempColorShown = true;
    }
    void enableTempColor(bool state) { m_tempColorShown = state; }
    bool isTempColorEnabled() const { return m_tempColorShown; }
    const QColor &getTempColor() const { return m_tempColor; }

    virtual void showNameIn3D(bool state) { m_nameIn3DShown = state; }
    bool nameShownIn3D() const { return m_nameIn3DShown; }

    virtual void setDisplay(tzGenericGLDisplay *display) { m_currentDisplay = display; }
    tzGenericGLDisplay *getDisplay() const { return m_currentDisplay; }
    //! Asks the object's view to redraw its 3D layer at the next frame.
    void prepareDisplayForRefresh()
    {
        if (m_currentDisplay)
            m_currentDisplay->deprecate3DLayer();
    }

protected:
    bool m_visible = true;
    bool m_pickable = true;
    bool m_pickedOnlyOnLines = false;
    bool m_selected = false;
    bool m_tempColorShown = false;
    QColor m_tempColor = QColor(255, 255, 255);
    bool m_nameIn3DShown = false;
    tzGenericGLDisplay *m_currentDisplay = nullptr;
};
