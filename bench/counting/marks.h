/* SPDX-License-Identifier: MIT */
/* How a counted program tells the plug-in where the counted parts begin and end: the first two arguments of a system
 * call. */
#pragma once

#define VXCOUNT_MAGIC 0x56584e43
#define VXCOUNT_BEGIN 1
#define VXCOUNT_END 2
#define VXCOUNT_PAUSE 3
#define VXCOUNT_RESUME 4
