#include "tzLineationTool.h"

#include "tzApplicationInterface.h"
#include "tzGLWindow.h"
#include "tzPointCloud.h"
#include "tzPointPair.h"

bool tzLineationTool::showLabels = false;

tzLineation *tzLineationTool::current() const
{
    if (m_lineation_id == NONE || !m_app || !m_app->databaseRoot())
        return nullptr;
    return dynamic_cast<tzLineation *>(m_app->databaseRoot()->find(m_lineation_id));
}

void tzLineationTool::pointPicked(tzHObject *insertionParent, unsigned pointIndex,
                                  tzPointCloud *cloud, const TZVector3 &P)
{
    Q_UNUSED(P) // the point is read by its index
    if (!m_app || !cloud)
        return;
    tzLineation *lineation = current();
    if (!lineation) {
        lineation = new tzLineation(cloud);
        m_lineation_id = lineation->getUniqueID();
        lineation->setDisplay(m_window);
        lineation->setVisible(true);
        lineation->setName(QStringLiteral("Lineation"));
        lineation->prepareDisplayForRefresh_recursive();
        if (insertionParent)
            insertionParent->addChild(lineation, DP_PARENT_OF_OTHER, -1);
        m_app->addToDatabase(lineation, false, false, false, false);
    }
    // The second point is read in the lineation's cloud (the first pick's), whichever cloud
    // it was picked in: a point beyond that cloud cannot be taken.
    const tzGenericPointCloud *vertices = lineation->getVertices();
    if (!vertices || pointIndex >= vertices->size()) {
        m_app->printToConsole(
            QStringLiteral("[tzLumivert] Point #%1 refuse : la distance se mesure dans le "
                           "nuage '%2' (%3 points)")
                .arg(pointIndex)
                .arg(vertices ? vertices->getName() : QString())
                .arg(vertices ? vertices->size() : 0u),
            tzApplicationInterface::WRN_CONSOLE_MESSAGE);
        return;
    }
    lineation->addPointIndex(pointIndex);
    if (lineation->size() == 2) {
        lineation->computeMetadata();
        lineation->showNameIn3D(showLabels);
        m_app->printToConsole(QStringLiteral("[tzLumivert] Distance entre les points = ")
                              + lineation->getName());
        m_lineation_id = NONE;
    }
    if (m_window)
        m_window->redraw();
}

void tzLineationTool::cancel()
{
    tzLineation *lineation = current();
    if (lineation && lineation->size() < 2) {
        m_app->removeFromDatabase(lineation, true);
        m_lineation_id = NONE;
    }
}
