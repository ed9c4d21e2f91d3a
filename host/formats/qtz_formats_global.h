#pragma once

#include <QtGlobal>

#if defined(QTZ_FORMATS_LIBRARY)
#define QTZ_FORMATS_LIB_API Q_DECL_EXPORT
#else
#define QTZ_FORMATS_LIB_API Q_DECL_IMPORT
#endif
