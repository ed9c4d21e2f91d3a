#include "tzLineationTool.h"

bool tzLineationTool::showLabels = false;
