#pragma once

#include "tzTool.h"

//! The distance between two picked points. The measurement itself (a lineation with its
//! bearing and slope) is built on this tool; for now the tool takes picks and does nothing.
class tzLineationTool : public tzTool
{
public:
    //! Whether new measurements show their label in 3D (the plug-in's label switch).
    static bool showLabels;
};
