/// \file
/// Marks what the plug-in and its host share across the boundary of the shared library.
#pragma once

/// Default visibility: the name is part of the binary interface. Everything else in the library is hidden.
#define ZEB_EXPORT __attribute__((visibility("default")))
