#pragma once

#include <QtGlobal>

#if defined(QTZ_GUI_LIBRARY)
#define QTZ_GUI_LIB_API Q_DECL_EXPORT
#else
#define QTZ_GUI_LIB_API Q_DECL_IMPORT
#endif
