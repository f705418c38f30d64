/* SPDX-License-Identifier: MIT */
/* How a counted program tells the plug-in where the counted part begins and ends: the first two arguments of a system
 * call. */
#pragma once

#define VXCOUNT_MAGIC 0x56584e43
#define VXCOUNT_BEGIN 1
#define VXCOUNT_END 2
