#pragma once

// What the tests of streamed clouds look at them with: a top view of a box, and the nodes it
// shows once every node it asked for has been read.

#include "tzStreamedCloud.h"

#include <vector>

namespace streamed {

// A top view (orthographic) of the box [x0, x1] x [y0, y1] around z 100 in local coordinates,
// on a screen of size pixels: the matrix that maps the box to the unit square.
inline tzStreamedCloud::View topView(double x0, double x1, double y0, double y1, int size,
                                     std::uint64_t budget = 0)
{
    tzStreamedCloud::View view;
    auto &m = view.modelViewProjection;
    m.fill(0);
    m[0] = float(2 / (x1 - x0));
    m[5] = float(2 / (y1 - y0));
    m[10] = float(-2.0 / 1000);
    m[12] = float(-(x1 + x0) / (x1 - x0));
    m[13] = float(-(y1 + y0) / (y1 - y0));
    m[14] = float(100.0 * 2 / 1000);
    m[15] = 1;
    view.width = view.height = size;
    view.pointBudget = budget;
    return view;
}

// The nodes the view draws once the reads it asked for have come (or 64 rounds).
inline std::vector<tzStreamedCloud::Piece> settle(tzStreamedCloud &cloud,
                                                  const tzStreamedCloud::View &view)
{
    bool complete = false;
    std::vector<tzStreamedCloud::Piece> pieces;
    for (int round = 0; round < 64 && !complete; ++round) {
        pieces = cloud.selectNodes(view, &complete);
        cloud.waitForReads();
        cloud.integrateArrivals();
    }
    return pieces;
}

} // namespace streamed
