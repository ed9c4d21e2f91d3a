#pragma once

// The cylinder is a cone with equal radii; both live in tzCone.h.
#include "tzCone.h"
