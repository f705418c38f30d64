// SPDX-License-Identifier: MIT
// The size of every public class and record, and the place of every member, held by the compiler on both machines:
// programs in the field derive from the classes, hold them in their own objects and read the records' fields. Compiled
// without access control, so that private members can be named.
#include <vxutils/address.h>
#include <vxutils/cfread.h>
#include <vxutils/configd.h>
#include <vxutils/configdaemonclient.h>
#include <vxutils/configreader.h>
#include <vxutils/csemaphore.h>
#include <vxutils/digest.h>
#include <vxutils/dio.h>
#include <vxutils/dio_status.h>
#include <vxutils/dynamicmodule.h>
#include <vxutils/eventsource.h>
#include <vxutils/file.h>
#include <vxutils/hashtable.h>
#include <vxutils/ipaddress.h>
#include <vxutils/ipinterfacestatus.h>
#include <vxutils/list.h>
#include <vxutils/memstream.h>
#include <vxutils/messagequeue.h>
#include <vxutils/pingclient.h>
#include <vxutils/processcontrol.h>
#include <vxutils/simplesms.h>
#include <vxutils/statusinterface.h>
#include <vxutils/storage.h>
#include <vxutils/systeminfo.h>
#include <vxutils/vxevent.h>
#include <vxutils/vxstring.h>
#include <vxutils/wwanmd.h>

#include <cstddef>

namespace {

constexpr size_t onThisMachine(size_t wide, size_t narrow) { return sizeof(void *) == 8 ? wide : narrow; }

// Bytes on x86-64, bytes on 32-bit Arm.
#define SIZE(type, wide, narrow) static_assert(sizeof(type) == onThisMachine(wide, narrow), "a size has changed")
#define MEMBER(type, name, wide, narrow) \
    static_assert(offsetof(type, name) == onThisMachine(wide, narrow), "a member has moved")

// ---- records of the plain face

SIZE(list_link, 16, 8);
MEMBER(list_link, next, 0, 0);
MEMBER(list_link, prev, 8, 4);

SIZE(mem_stream, 16, 8);
MEMBER(mem_stream, buf, 0, 0);
MEMBER(mem_stream, buf_size, 8, 4);

SIZE(cfread_entry, 32, 16);
MEMBER(cfread_entry, index, 0, 0);
MEMBER(cfread_entry, key, 8, 4);
MEMBER(cfread_entry, value, 16, 8);
MEMBER(cfread_entry, ival, 24, 12);

SIZE(cfread_table, 64, 36);
MEMBER(cfread_table, count, 0, 0);
MEMBER(cfread_table, size, 4, 4);
MEMBER(cfread_table, entries, 8, 8);
MEMBER(cfread_table, file, 16, 12);
MEMBER(cfread_table, reserved, 24, 16);
MEMBER(cfread_table, callback, 32, 20);
MEMBER(cfread_table, cb_arg, 40, 24);
MEMBER(cfread_table, cb_empty, 48, 28);

SIZE(systeminfo_var, 16, 8);
MEMBER(systeminfo_var, name, 0, 0);
MEMBER(systeminfo_var, value, 8, 4);

SIZE(systeminfo_table, 4104, 2052);
MEMBER(systeminfo_table, count, 0, 0);
MEMBER(systeminfo_table, vars, 8, 4);

SIZE(configd_entry, 1296, 1288);
MEMBER(configd_entry, list, 0, 0);
MEMBER(configd_entry, key, 16, 8);
MEMBER(configd_entry, value, 272, 264);

SIZE(configd_handle, 544, 532);
MEMBER(configd_handle, fd, 0, 0);
MEMBER(configd_handle, client_path, 4, 4);
MEMBER(configd_handle, server_path, 260, 260);
MEMBER(configd_handle, count, 516, 516);
MEMBER(configd_handle, queries, 520, 520);
MEMBER(configd_handle, fetched, 536, 528);

SIZE(file_line, 24, 12);
MEMBER(file_line, list, 0, 0);
MEMBER(file_line, data, 16, 8);

SIZE(vxevent_record, 136, 136);
MEMBER(vxevent_record, id, 0, 0);
MEMBER(vxevent_record, param, 4, 4);
MEMBER(vxevent_record, text, 8, 8);

SIZE(route_record, 52, 52);
MEMBER(route_record, head, 0, 0);
MEMBER(route_record, slot, 4, 4);

SIZE(wwanmd_handle, 56, 56);
MEMBER(wwanmd_handle, card, 0, 0);
MEMBER(wwanmd_handle, app, 4, 4);
MEMBER(wwanmd_handle, fd, 20, 20);
MEMBER(wwanmd_handle, flags, 24, 24);
MEMBER(wwanmd_handle, failures, 28, 28);
MEMBER(wwanmd_handle, busy_count, 32, 32);
MEMBER(wwanmd_handle, last_io, 40, 40);

SIZE(wwanmd_msg, 8204, 8204);
MEMBER(wwanmd_msg, data, 0, 0);
MEMBER(wwanmd_msg, len, 8192, 8192);
MEMBER(wwanmd_msg, timeout, 8196, 8196);
MEMBER(wwanmd_msg, reserved, 8200, 8200);

SIZE(dio_frequency_record, 24, 24);
MEMBER(dio_frequency_record, number, 0, 0);
MEMBER(dio_frequency_record, first, 8, 8);
MEMBER(dio_frequency_record, second, 16, 16);

SIZE(dio_status_half, 16, 16);
MEMBER(dio_status_half, count, 0, 0);
MEMBER(dio_status_half, mask, 4, 4);

SIZE(dio_status, 32, 32);
MEMBER(dio_status, in, 0, 0);
MEMBER(dio_status, out, 16, 16);

SIZE(storage_entry, 176, 168);
MEMBER(storage_entry, list, 0, 0);
MEMBER(storage_entry, device, 16, 8);
MEMBER(storage_entry, partition, 48, 40);
MEMBER(storage_entry, type, 80, 72);
MEMBER(storage_entry, index, 84, 76);
MEMBER(storage_entry, mount_point, 88, 80);
MEMBER(storage_entry, size, 152, 144);
MEMBER(storage_entry, total, 160, 152);
MEMBER(storage_entry, available, 168, 160);

SIZE(storage_list, 24, 16);
MEMBER(storage_list, entries, 0, 0);
MEMBER(storage_list, mask, 16, 8);
MEMBER(storage_list, count, 20, 12);

// ---- classes: those with virtual operations begin with the pointer to their table

SIZE(String, 8, 4);
MEMBER(String, buffer_, 0, 0);

SIZE(String::StringBuffer, 16, 16);
MEMBER(String::StringBuffer, refCount, 0, 0);
MEMBER(String::StringBuffer, capacity, 4, 4);
MEMBER(String::StringBuffer, length, 8, 8);
MEMBER(String::StringBuffer, text, 12, 12);

SIZE(INUInt32HashTable, 16, 12);
MEMBER(INUInt32HashTable, buckets_, 0, 0);
MEMBER(INUInt32HashTable, count_, 8, 4);
MEMBER(INUInt32HashTable, mask_, 12, 8);

SIZE(INStringHashTable, 16, 12);
MEMBER(INStringHashTable, buckets_, 0, 0);
MEMBER(INStringHashTable, count_, 8, 4);
MEMBER(INStringHashTable, mask_, 12, 8);

SIZE(ConfigReader, 16, 8);
MEMBER(ConfigReader, table_, 8, 4);

SIZE(ConfigDaemonClient, 16, 8);
MEMBER(ConfigDaemonClient, handle_, 8, 4);

SIZE(ProcessEntry, 40, 20);
MEMBER(ProcessEntry, pid_, 8, 4);
MEMBER(ProcessEntry, name_, 16, 8);
MEMBER(ProcessEntry, next_, 24, 12);
MEMBER(ProcessEntry, valid_, 32, 16);

SIZE(ProcessControl, 24, 12);
MEMBER(ProcessControl, head_, 8, 4);
MEMBER(ProcessControl, count_, 16, 8);

SIZE(CSemaphore, 56, 40);
MEMBER(CSemaphore, pathname_, 8, 4);
MEMBER(CSemaphore, projectId_, 40, 28);
MEMBER(CSemaphore, key_, 44, 32);
MEMBER(CSemaphore, semId_, 48, 36);

SIZE(CRecursiveSemaphore, 16, 8);
MEMBER(CRecursiveSemaphore, impl_, 8, 4);
MEMBER(CRecursiveSemaphore::private_impl, mutex_, 8, 4);  // read by lock() and unlock(), compiled into callers

SIZE(CRecursiveSemaphore::CSemaphoreOptions, 1, 1);
MEMBER(CRecursiveSemaphore::CSemaphoreOptions, automatic_, 0, 0);

SIZE(IFDEventsink, 8, 4);
SIZE(ITimeoutEventsink, 8, 4);
SIZE(IFDEventsource, 8, 4);
SIZE(ITimeoutEventsource, 8, 4);

SIZE(CEPollEventsource, 128, 72);
MEMBER(CEPollEventsource, sinks_, 16, 8);
MEMBER(CEPollEventsource, timers_, 64, 32);
MEMBER(CEPollEventsource, epollFd_, 112, 56);
MEMBER(CEPollEventsource, commandWriteFd_, 116, 60);
MEMBER(CEPollEventsource, commandReadFd_, 120, 64);
MEMBER(CEPollEventsource, terminated_, 124, 68);

SIZE(CQMsg, 16, 8);
MEMBER(CQMsg, code, 0, 0);
MEMBER(CQMsg, data, 8, 4);

SIZE(IMQEventsink, 8, 4);

SIZE(CMessageQueue, 152, 84);
MEMBER(CMessageQueue, consumer_, 8, 4);
MEMBER(CMessageQueue, source_, 16, 8);
MEMBER(CMessageQueue, mutex_, 24, 12);
MEMBER(CMessageQueue, writeFd_, 64, 36);
MEMBER(CMessageQueue, readFd_, 68, 40);
MEMBER(CMessageQueue, messages_, 72, 44);

SIZE(StatusFifoObserver, 8, 4);

SIZE(StatusInterface, 24, 12);
MEMBER(StatusInterface, path_, 8, 4);
MEMBER(StatusInterface, fifos_, 16, 8);

SIZE(CDynamicModule, 48, 32);
MEMBER(CDynamicModule, handle_, 8, 4);
MEMBER(CDynamicModule, libPath_, 16, 8);

SIZE(IpAddress, 36, 36);
MEMBER(IpAddress, type_, 0, 0);
MEMBER(IpAddress, address_, 4, 4);
MEMBER(IpAddress, netmask_, 20, 20);

SIZE(PingClient, 16, 12);
MEMBER(PingClient, socket_, 8, 4);
MEMBER(PingClient, identifier_, 12, 8);
MEMBER(PingClient, sequence_, 14, 10);

SIZE(IpInterfaceStatus, 8, 4);

SIZE(CSimpleSMS, 96, 72);
MEMBER(CSimpleSMS, number_, 0, 0);
MEMBER(CSimpleSMS, received_, 32, 24);
MEMBER(CSimpleSMS, text_, 64, 48);

SIZE(HashContext, 8, 4);

SIZE(Md5HashContext, 104, 96);
MEMBER(Md5HashContext, state_, 8, 4);
MEMBER(Md5HashContext, countLow_, 24, 20);
MEMBER(Md5HashContext, countHigh_, 28, 24);
MEMBER(Md5HashContext, buffer_, 32, 28);
MEMBER(Md5HashContext, returnedLength_, 96, 92);

SIZE(Sha1HashContext, 104, 100);
MEMBER(Sha1HashContext, state_, 8, 4);
MEMBER(Sha1HashContext, countLow_, 28, 24);
MEMBER(Sha1HashContext, countHigh_, 32, 28);
MEMBER(Sha1HashContext, buffer_, 36, 32);
MEMBER(Sha1HashContext, returnedLength_, 100, 96);

SIZE(AuthenticationContext, 8, 4);

SIZE(HmacContext, 152, 140);
MEMBER(HmacContext, inner_, 8, 4);
MEMBER(HmacContext, innerPad_, 16, 8);
MEMBER(HmacContext, outerPad_, 80, 72);
MEMBER(HmacContext, returnedLength_, 144, 136);

}  // namespace
