#pragma once

#include "tzTool.h"

class tzLineation;

//! The distance between two picked points: the first pick starts a lineation on the picked
//! cloud, the second completes it (its length, trend and plunge) and prints the length to the
//! console; the next pick starts another. Cancelling (or leaving the tool) removes a lineation
//! that has only its first point. Nothing goes to the companion.
class tzLineationTool : public tzTool
{
public:
    static constexpr unsigned NONE = 0xFFFFFFFFu;
    //! Whether new measurements show their label in 3D (the plug-in's label switch).
    static bool showLabels;

    void toolDeactivated() override { cancel(); }
    using tzTool::pointPicked;
    void pointPicked(tzHObject *insertionParent, unsigned pointIndex, tzPointCloud *cloud,
                     const TZVector3 &P) override;
    void accept() override { cancel(); }
    //! Removes the lineation under construction if it has fewer than two points (and only then
    //! forgets it).
    void cancel() override;

    //! The unique ID of the lineation under construction, NONE between measurements.
    unsigned lineationID() const { return m_lineation_id; }

private:
    tzLineation *current() const;

    unsigned m_lineation_id = NONE;
};
