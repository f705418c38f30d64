/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Lists the storage devices of the board: which are fitted, where they are mounted, how large they are.
 *
 * **Example.**
 * @code
 * storage_list *found = old_get_storage(0);
 * const storage_entry *usb = old_get_storage_device(found, 16, 0);  // USB disk on port 0
 * if (usb != NULL && usb->mount_point[0] != '\0') printf("%lld bytes free\n", (long long)usb->available);
 * if (found != NULL) old_free_storage(found);
 * free(found);  // the head is the caller's
 * @endcode
 *
 * **What is found.** Each entry is one partition: mmcblk0p3, mmcblk0p4, mmcblk1p1, mmcblk1p3, mmcblk1p4, mtdblock3, and
 * of the disks sda to sdz the first partition, or the whole disk if it has none. Other block devices are not looked at.
 * Of several mount points the first in /proc/mounts counts.
 *
 * **Types.** Types are single bits: 2 is internal flash or eMMC, 4 partition 4 of an eMMC, 8 an SD card, a SATA disk
 * (index 1) or a USB disk on an unknown port, 16 a USB disk on a known port. The link of the partition in
 * /sys/class/block tells which, by the first of these texts that it holds: "/mtd" is 2; "/mmc_host" is 4 for mmcblk0p4
 * and mmcblk1p4, 8 for mmcblk1p1 on a board of generation 18 (qxhw()), else 2; "/ata1" and "/ata2" are 8; "/usb" is 16
 * if a directory in the link has one of the names of port 0 or 1, else 8. The names of a port are the lines of
 * /proc/sysinfo/usbportN/usbName, of which 63 characters are read; a ':' in them is read as '.'. Partitions with any
 * other link are left out.
 *
 * **Ownership.** The caller frees the entries with old_free_storage() and the head with free(). A pointer to an entry
 * is valid as long as the list's entries.
 *
 * **Threads, signals, fork.** A list is used by one thread at a time; lists share nothing. old_get_storage() calls
 * qxhw() (hardware.h), so only one thread at a time may call it. Not for signal handlers. After fork() the child has a
 * copy of its own.
 *
 * **Blocking.** old_get_storage() takes as long as the kernel does to look at each mounted file system: a medium that
 * does not answer holds the call up. The other functions do not block.
 *
 * **Errors.** old_get_storage() returns NULL when there is no memory for the head. Fields that cannot be found out are
 * -1 or empty. Nothing is logged.
 *
 * **Limits.** Texts too long for their fields are cut: a mount point of more than 63 characters is not a usable path
 * then. Memory alone limits the number of entries.
 *
 * **Privileges.** Read access to /sys/class/block, /proc/mounts and /proc/sysinfo, search access to the mount points
 * (otherwise the totals are -1), and read access to the device's node in /dev (otherwise its size is -1).
 *
 * **Compatibility.** None.
 */
#ifndef VXUTILS_STORAGE_H
#define VXUTILS_STORAGE_H

#include <stdint.h>
#include <vxutils/api.h>
#include <vxutils/list.h>

VXUTILS_BEGIN_DECLS

/** One storage device. Texts too long for their fields are cut. */
struct storage_entry {
    struct list_link list; /**< link in storage_list::entries */
    char device[32];       /**< whole device, e.g. "mmcblk1", "sda", "mtdblock3" */
    char partition[32];    /**< partition, e.g. "mmcblk1p1", "sda1"; a disk without one has its own name here */
    uint32_t type;         /**< one bit, see above */
    uint32_t index;        /**< 0 or 1; of a USB disk the port */
    char mount_point[64];  /**< where it is mounted, "/" for the root's overlay; empty when it is not */
    int64_t size;          /**< bytes of the whole device; -1 when unknown */
    int64_t total;         /**< bytes of the file system; -1 when not mounted */
    int64_t available;     /**< bytes that ordinary users can still write; -1 when not mounted */
};
typedef struct storage_entry storage_entry; /**< the record's short name */

/** The devices found, ordered by type, then index, then order of discovery. */
struct storage_list {
    struct list_link entries; /**< head of the list of storage_entry */
    uint32_t mask;            /**< types that were asked for */
    unsigned int count;       /**< number of entries */
};
typedef struct storage_list storage_list; /**< the record's short name */

/**
 * Find the storage devices, as they are at this moment: call it again to see what was plugged in since. This is the
 * function to use: the prefix "old_" is part of its fixed name only.
 *
 * @param mask  types that are wanted, 0 for all (then taken as 255)
 * @return the list, possibly empty; the caller empties it with old_free_storage() and frees the head with free(). NULL
 *         only when there is no memory for the head; entries for which memory is short are left out.
 */
VXUTILS_API storage_list *old_get_storage(unsigned int mask);

/**
 * Find a device in a list.
 * @param list   from old_get_storage(); NULL finds nothing
 * @param type   one type bit
 * @param index  0 or 1, as in the entry
 * @return the first such entry, which lives as long as the list's entries; NULL when there is none
 */
VXUTILS_API storage_entry *old_get_storage_device(const storage_list *list, uint32_t type, uint32_t index);

/**
 * Free all entries. The head stays, empty, with the caller.
 * @param list  from old_get_storage(); NULL is ignored
 */
VXUTILS_API void old_free_storage(storage_list *list);

VXUTILS_END_DECLS

#endif
