#include "tzStdPluginInterface.h"

#include "tzApplicationInterface.h"

void tzStdPluginInterface::setAppInterface(tzApplicationInterface *app)
{
    m_app = app;
    if (m_app)
        tzObject::SetUniqueIDGenerator(m_app->getUniqueIDGenerator());
}

void tzStdPluginInterface::printToConsole(const QString &text, int level)
{
    if (m_app)
        m_app->printToConsole(text, level);
}
