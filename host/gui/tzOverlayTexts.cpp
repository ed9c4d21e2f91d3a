#include "tzOverlayTexts.h"

#include <QFontMetrics>
#include <QPainter>

#include <algorithm>

tzOverlayTexts::tzOverlayTexts()
{
    m_clock.start();
}

void tzOverlayTexts::addText(const QString &text, int x, int y, int align, float bkgAlpha,
                             const QColor &color, const QFont &font)
{
    m_texts.push_back({text, x, y, align, bkgAlpha, color, font});
}

void tzOverlayTexts::showMessage(const QString &message, MessagePosition position, bool append,
                                 int delaySec, int type)
{
    if (!append) {
        m_messages.erase(std::remove_if(m_messages.begin(), m_messages.end(),
                                        [&](const Message &m) {
                                            return m.position == position && m.type == type;
                                        }),
                         m_messages.end());
    }
    if (!message.isEmpty())
        m_messages.push_back(
            {message, position, type, m_clock.elapsed() + qint64(delaySec) * 1000});
}

QStringList tzOverlayTexts::messages(MessagePosition position) const
{
    QStringList texts;
    const qint64 now = m_clock.elapsed();
    for (const Message &m : m_messages) {
        if (m.position == position && m.expiresMs > now)
            texts << m.text;
    }
    return texts;
}

void tzOverlayTexts::paintText(QPainter &painter, const Text &t, int height) const
{
    painter.setFont(t.font);
    const QFontMetrics metrics(t.font);
    QRect box = metrics.boundingRect(t.text);
    // From the anchor (lower-left origin, y up) to the text's baseline in widget pixels.
    int x = t.x;
    if (t.align & Qt::AlignHCenter)
        x -= box.width() / 2;
    else if (t.align & Qt::AlignRight)
        x -= box.width();
    int y = height - t.y;
    if (t.align & Qt::AlignVCenter)
        y += (metrics.ascent() - metrics.descent()) / 2;
    else if (t.align & Qt::AlignTop)
        y += metrics.ascent();
    else if (t.align & Qt::AlignBottom)
        y -= metrics.descent();
    box.moveTo(x, y - metrics.ascent());
    if (t.bkgAlpha > 0) {
        QColor background(0, 0, 0);
        background.setAlphaF(qBound(0.f, t.bkgAlpha, 1.f));
        painter.fillRect(box.adjusted(-2, -1, 2, 1), background);
    }
    painter.setPen(t.color);
    painter.drawText(x, y, t.text);
}

bool tzOverlayTexts::pending()
{
    const qint64 now = m_clock.elapsed();
    m_messages.erase(std::remove_if(m_messages.begin(), m_messages.end(),
                                    [now](const Message &m) { return m.expiresMs <= now; }),
                     m_messages.end());
    return !m_texts.empty() || !m_messages.empty();
}

qint64 tzOverlayTexts::paint(QPainter &painter, const QSize &picture, const QFont &messageFont)
{
    if (!pending())
        return -1;
    const qint64 now = m_clock.elapsed();
    painter.setRenderHint(QPainter::TextAntialiasing);
    for (const Text &t : m_texts)
        paintText(painter, t, picture.height());

    // Messages stack in their area: downwards from the top and from the centre, upwards from
    // the lower left corner.
    painter.setFont(messageFont);
    painter.setPen(QColor(255, 255, 255));
    const QFontMetrics metrics(messageFont);
    int upper = 10 + metrics.ascent();
    int lower = picture.height() - 10;
    int centre = picture.height() / 2;
    qint64 next = -1;
    for (const Message &m : m_messages) {
        const int w = metrics.horizontalAdvance(m.text);
        switch (m.position) {
        case UPPER_CENTER_MESSAGE:
            painter.drawText((picture.width() - w) / 2, upper, m.text);
            upper += metrics.height();
            break;
        case LOWER_LEFT_MESSAGE:
            painter.drawText(10, lower, m.text);
            lower -= metrics.height();
            break;
        case SCREEN_CENTER_MESSAGE:
            painter.drawText((picture.width() - w) / 2, centre, m.text);
            centre += metrics.height();
            break;
        }
        next = next < 0 ? m.expiresMs : std::min(next, m.expiresMs);
    }
    return next < 0 ? -1 : std::max<qint64>(next - now, 1);
}
