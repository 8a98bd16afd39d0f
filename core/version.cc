// SPDX-License-Identifier: BSD-3-Clause
// The release of the library that is loaded, for comparison with the headers a program used.
#include "tov/version.h"

extern "C" TOV_API const char *tov_version(void) { return TOV_VERSION_STRING; }
