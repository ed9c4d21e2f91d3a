#pragma once

class tzHObject;

//! Whether an object is one of the plug-in's measurements: its "tzLumivertType" metadata contains
//! one of the measurement kinds (case-sensitive). False without the key.
bool hasPointPairTag(const tzHObject *object);
//! Whether an object's "tzLumivertType" metadata contains "Lineation".
bool hasLineationTag(const tzHObject *object);
//! Shows or hides the 3D label of every measurement under object (the object included), at any
//! depth and under any kind of parent.
void showMeasurementLabels(tzHObject *object, bool show);
