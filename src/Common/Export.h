#pragma once

/// Marks what libOPAL.so exports; everything else in it is hidden.
#define OPAL_EXPORT __attribute__((visibility("default")))
