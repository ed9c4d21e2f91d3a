#pragma once

#include <QtGlobal>

#if defined(QTZ_DB_LIBRARY)
#define QTZ_DB_LIB_API Q_DECL_EXPORT
#else
#define QTZ_DB_LIB_API Q_DECL_IMPORT
#endif
