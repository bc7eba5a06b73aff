#pragma once

#include "Common/Export.h"

// The version of these headers. The build and the documents of an installation take it from here.
#define OPAL_VERSION_MAJOR 1
#define OPAL_VERSION_MINOR 3
#define OPAL_VERSION_REVISION 2
#define OPAL_VERSION_BUILD 35
#define OPAL_VERSION_TEXT "1.3.2.35"

extern "C" {

/// The version of the library that is loaded, as OPAL_VERSION_TEXT is that of the headers. Never
/// null; valid for ever.
OPAL_EXPORT const char* OPALVersionText();
}
