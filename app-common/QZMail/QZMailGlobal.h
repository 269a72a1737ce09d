// Export macro of the QZMail library.
#pragma once

#include <QtCore/qglobal.h>

#if defined(QZMAIL_BUILDING_LIBRARY)
#  define QZMAIL_EXPORT Q_DECL_EXPORT
#else
#  define QZMAIL_EXPORT Q_DECL_IMPORT
#endif
