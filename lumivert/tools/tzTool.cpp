#include "tzTool.h"

#include "tzApplicationInterface.h"

void tzTool::setupTool(tzApplicationInterface *app)
{
    m_app = app;
    m_window = app ? app->activeView() : nullptr;
}
