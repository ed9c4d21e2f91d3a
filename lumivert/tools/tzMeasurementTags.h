#pragma once

class tzHObject;

//! Whether an object is one of the plug-in's measurements: its "tzLumivertType" metadata contains
//! one of the measurement kinds (case-sensitive). False without the key.
bool hasPointPairTag(const tzHObject *object);
//! Whether an object's "tzLumivertType" metadata contains "Lineation".
bool hasLineationTag(const tzHObject *object);
