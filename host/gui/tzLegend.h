#pragma once

#include <QRect>

#include <vector>

class QPainter;
class tzPointCloud;

//! The legend of a cloud's colours, in a corner of the view: the ramp with its values for
//! intensity and elevation, the classes with their colours for classification.
namespace tzLegend {

//! The cloud the legend explains: a selected one shown by intensity, elevation or class, else
//! the first one so shown; null when every cloud shows its own colours.
const tzPointCloud *cloudToExplain(const std::vector<const tzPointCloud *> &clouds);

//! Paints the legend of the cloud at the right of the area.
void draw(QPainter &painter, const tzPointCloud &cloud, const QRect &area);

} // namespace tzLegend
