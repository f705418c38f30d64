// SPDX-License-Identifier: MIT
#include <vxutils/version.h>

const char *vxutils_version(void) { return VXUTILS_VERSION_STRING; }
