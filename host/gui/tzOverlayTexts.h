#pragma once

#include "qtz_gui_global.h"

#include <QColor>
#include <QElapsedTimer>
#include <QFont>
#include <QSize>
#include <QString>
#include <QStringList>

#include <vector>

class QPainter;

//! What a view writes over its picture: the texts its objects ask for while a frame is drawn
//! (anchored at a pixel of the picture, lower-left origin) and the timed messages shown in one of
//! the view's areas until they expire. Painted with QPainter over the finished frame.
class QTZ_GUI_LIB_API tzOverlayTexts
{
public:
    enum MessagePosition { LOWER_LEFT_MESSAGE, UPPER_CENTER_MESSAGE, SCREEN_CENTER_MESSAGE };

    tzOverlayTexts();

    //! Forgets the texts of the last frame (the messages stay until they expire).
    void clearTexts() { m_texts.clear(); }
    //! A text to write at (x, y), lower-left origin, y up; align (Qt::Alignment) says which part
    //! of the text lies at the anchor. bkgAlpha > 0 puts a black box of that opacity behind it.
    void addText(const QString &text, int x, int y, int align, float bkgAlpha, const QColor &color,
                 const QFont &font);

    //! Shows a message in an area for delaySec seconds. Without append the area's messages of
    //! the same type are replaced; an empty text just clears them.
    void showMessage(const QString &message, MessagePosition position, bool append, int delaySec,
                     int type);
    //! The messages an area shows now, oldest first.
    QStringList messages(MessagePosition position) const;

    //! Drops the expired messages; whether anything is left to paint.
    bool pending();
    //! Writes the texts and the messages (in messageFont, white) over a picture of this size,
    //! after dropping the expired messages. Returns in how many milliseconds the next message
    //! expires, or -1 when none is left.
    qint64 paint(QPainter &painter, const QSize &picture, const QFont &messageFont);

private:
    struct Message
    {
        QString text;
        MessagePosition position;
        int type;
        qint64 expiresMs;
    };
    struct Text
    {
        QString text;
        int x, y, align;
        float bkgAlpha;
        QColor color;
        QFont font;
    };
    void paintText(QPainter &painter, const Text &text, int height) const;

    std::vector<Text> m_texts;
    std::vector<Message> m_messages;
    QElapsedTimer m_clock;
};
