// Export macro and shared helpers of the QZApp library.
#pragma once

#include <QtCore/qglobal.h>

#if defined(QZAPP_BUILDING_LIBRARY)
#  define QZAPP_EXPORT Q_DECL_EXPORT
#else
#  define QZAPP_EXPORT Q_DECL_IMPORT
#endif
