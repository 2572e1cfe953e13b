// The fields of the kernel.

#include "kernel/btree.h"
#include "kernel/buffer.h"
#include "kernel/buffer_callback.h"
#include "kernel/io.h"
#include "kernel/kern_memory.h"
#include "kernel/kernel.h"
#include "kernel/layout_priv.h"
#include "kernel/link_indirect.h"
#include "kernel/link_list.h"
#include "kernel/link_stream.h"
#include "kernel/posixkernel.h"
#include "kernel/posixkernel_time.h"
#include "kernel/task.h"
#include "kernel/trigger.h"

OSKERNEL_STANDS_AT(OSMemArea, next, 0);
OSKERNEL_STANDS_AT(OSMemArea, last, 4);
OSKERNEL_STANDS_AT(OSMemArea, size, 8);

OSKERNEL_STANDS_AT(OSMemBlock, pool, 0);
OSKERNEL_STANDS_AT(OSMemBlock, size, 4);

OSKERNEL_STANDS_AT(OSMemPool, secondary_pool, 0);
OSKERNEL_STANDS_AT(OSMemPool, size, 4);
OSKERNEL_STANDS_AT(OSMemPool, NoMemIsFatal, 8);

OSKERNEL_STANDS_AT(CRITICAL_SECTION, sem, 0);
OSKERNEL_STANDS_AT(CRITICAL_SECTION, owner_thread_id, 4);
OSKERNEL_STANDS_AT(CRITICAL_SECTION, owner_count, 8);

OSKERNEL_STANDS_AT(KernelEvent, handle, 20);
OSKERNEL_STANDS_AT(KernelEvent, sem, 24);

OSKERNEL_STANDS_AT(_SYSTEMTIME, wYear, 0);
OSKERNEL_STANDS_AT(_SYSTEMTIME, wMonth, 2);
OSKERNEL_STANDS_AT(_SYSTEMTIME, wDayOfWeek, 4);
OSKERNEL_STANDS_AT(_SYSTEMTIME, wDay, 6);
OSKERNEL_STANDS_AT(_SYSTEMTIME, wHour, 8);
OSKERNEL_STANDS_AT(_SYSTEMTIME, wMinute, 10);
OSKERNEL_STANDS_AT(_SYSTEMTIME, wSecond, 12);
OSKERNEL_STANDS_AT(_SYSTEMTIME, wMilliseconds, 14);
OSKERNEL_STANDS_AT(_SYSTEMTIME, isDst, 16);

OSKERNEL_STANDS_AT(OSLink, next, 4);
OSKERNEL_STANDS_AT(OSLink, previous, 8);
OSKERNEL_STANDS_AT(OSLink, object, 12);
OSKERNEL_STANDS_AT(OSLink, isFree, 16);

OSKERNEL_STANDS_AT(OSLinkHead, delete_contents_on_destroy, 18);

OSKERNEL_STANDS_AT(OSLinkList, number_in_list, 20);
OSKERNEL_STANDS_AT(OSLinkList, signature, 24);

OSKERNEL_STANDS_AT(OSLinkIterator, start, 0);
OSKERNEL_STANDS_AT(OSLinkIterator, current, 4);

OSKERNEL_STANDS_AT(OSQueue, triggers, 28);

OSKERNEL_STANDS_AT(OSProtectedQueue, cs, 56);

OSKERNEL_STANDS_AT(OSProtectedList, cs, 28);

OSKERNEL_STANDS_AT(OSStream, total_length, 56);
OSKERNEL_STANDS_AT(OSStream, max_buffer_size, 60);
OSKERNEL_STANDS_AT(OSStream, max_total_length, 64);
OSKERNEL_STANDS_AT(OSStream, max_num_buffers, 68);
OSKERNEL_STANDS_AT(OSStream, compressible, 72);
OSKERNEL_STANDS_AT(OSStream, comp_callbacks, 76);
OSKERNEL_STANDS_AT(OSStream, comp_lengths, 716);
OSKERNEL_STANDS_AT(OSStream, comp_w, 780);
OSKERNEL_STANDS_AT(OSStream, comp_r, 784);

OSKERNEL_STANDS_AT(KernelCfg, buf_size, 0);
OSKERNEL_STANDS_AT(KernelCfg, buf_qty, 16);
OSKERNEL_STANDS_AT(KernelCfg, buf_min_space, 32);
OSKERNEL_STANDS_AT(KernelCfg, callback_qty, 36);
OSKERNEL_STANDS_AT(KernelCfg, link_qty, 40);
OSKERNEL_STANDS_AT(KernelCfg, trigger_stack, 44);

OSKERNEL_STANDS_AT(OSLevel, tcbp, 0);
OSKERNEL_STANDS_AT(OSLevel, ntsks, 4);

OSKERNEL_STANDS_AT(OSScanTableEntry, plev, 0);
OSKERNEL_STANDS_AT(OSScanTableEntry, nscte, 4);

OSKERNEL_STANDS_AT(OSProgram, sctep, 0);
OSKERNEL_STANDS_AT(OSProgram, nswaps, 4);
OSKERNEL_STANDS_AT(OSProgram, lev, 8);
OSKERNEL_STANDS_AT(OSProgram, scantab, 72);

OSKERNEL_STANDS_AT(OSBuf, home_q, 24);
OSKERNEL_STANDS_AT(OSBuf, payload, 28);
OSKERNEL_STANDS_AT(OSBuf, size, 32);
OSKERNEL_STANDS_AT(OSBuf, data_free_callback, 36);
OSKERNEL_STANDS_AT(OSBuf, buffer_free_callback, 56);
OSKERNEL_STANDS_AT(OSBuf, data, 76);
OSKERNEL_STANDS_AT(OSBuf, length, 80);
OSKERNEL_STANDS_AT(OSBuf, trace, 82);
OSKERNEL_STANDS_AT(OSBuf, flags, 83);
OSKERNEL_STANDS_AT(OSBuf, id, 84);
OSKERNEL_STANDS_AT(OSBuf, timeStamp, 88);
OSKERNEL_STANDS_AT(OSBuf, destPtr, 92);
OSKERNEL_STANDS_AT(OSBuf, local_ipaddr, 96);
OSKERNEL_STANDS_AT(OSBuf, remote_ipaddr, 100);
OSKERNEL_STANDS_AT(OSBuf, remote_port, 104);
OSKERNEL_STANDS_AT(OSBuf, local_port, 106);

OSKERNEL_STANDS_AT(OSCallback, callback_function, 24);
OSKERNEL_STANDS_AT(OSCallback, callback_record, 28);
OSKERNEL_STANDS_AT(OSCallback, object, 32);
OSKERNEL_STANDS_AT(OSCallback, addr, 36);
OSKERNEL_STANDS_AT(OSCallback, value, 40);

OSKERNEL_STANDS_AT(OSBTreeObj, link, 4);
OSKERNEL_STANDS_AT(OSBTreeObj, balance, 16);
OSKERNEL_STANDS_AT(OSBTreeObj, cache, 17);
OSKERNEL_STANDS_AT(OSBTreeObj, dupprev, 20);
OSKERNEL_STANDS_AT(OSBTreeObj, dupnext, 24);

OSKERNEL_STANDS_AT(OSBTree, count, 4);
OSKERNEL_STANDS_AT(OSBTree, size, 8);
OSKERNEL_STANDS_AT(OSBTree, root, 12);
OSKERNEL_STANDS_AT(OSBTree, cs, 40);

OSKERNEL_STANDS_AT(OSIOAddress, destination, 4);

OSKERNEL_STANDS_AT(OSIO, partner, 4);

OSKERNEL_STANDS_AT(OSTaskRecord, task, 0);

OSKERNEL_STANDS_AT(OSTask, curstk, 24);
OSKERNEL_STANDS_AT(OSTask, pntcb, 28);
OSKERNEL_STANDS_AT(OSTask, pltcb, 32);
OSKERNEL_STANDS_AT(OSTask, stkbot, 36);
OSKERNEL_STANDS_AT(OSTask, stksize, 40);
OSKERNEL_STANDS_AT(OSTask, proc_time, 44);
OSKERNEL_STANDS_AT(OSTask, max_time, 48);
OSKERNEL_STANDS_AT(OSTask, rcode, 50);
OSKERNEL_STANDS_AT(OSTask, priority, 52);
OSKERNEL_STANDS_AT(OSTask, state, 56);
OSKERNEL_STANDS_AT(OSTask, userdata, 60);
OSKERNEL_STANDS_AT(OSTask, thread_id, 64);
OSKERNEL_STANDS_AT(OSTask, thread_pid, 68);
OSKERNEL_STANDS_AT(OSTask, thread_event, 72);
OSKERNEL_STANDS_AT(OSTask, start_func, 76);
OSKERNEL_STANDS_AT(OSTask, task_record, 80);
OSKERNEL_STANDS_AT(OSTask, cs, 84);

OSKERNEL_STANDS_AT(OSTaskTag, name, 4);
OSKERNEL_STANDS_AT(OSTaskTag, task, 136);
OSKERNEL_STANDS_AT(OSTaskTag, thread_id, 140);

OSKERNEL_STANDS_AT(OSAxeTask, axeq, 0);
OSKERNEL_STANDS_AT(OSAxeTask, trig, 4);

OSKERNEL_STANDS_AT(OSTrigger, state, 24);
OSKERNEL_STANDS_AT(OSTrigger, action, 28);
OSKERNEL_STANDS_AT(OSTrigger, reason, 32);
OSKERNEL_STANDS_AT(OSTrigger, async, 33);
OSKERNEL_STANDS_AT(OSTrigger, tls, 36);
OSKERNEL_STANDS_AT(OSTrigger, task, 40);
OSKERNEL_STANDS_AT(OSTrigger, callback, 44);
OSKERNEL_STANDS_AT(OSTrigger, obj, 48);
OSKERNEL_STANDS_AT(OSTrigger, addr, 52);
OSKERNEL_STANDS_AT(OSTrigger, value, 56);
OSKERNEL_STANDS_AT(OSTrigger, fired, 60);

OSKERNEL_STANDS_AT(OSTimerTrigger, start_time, 88);
OSKERNEL_STANDS_AT(OSTimerTrigger, duration, 92);
OSKERNEL_STANDS_AT(OSTimerTrigger, single_shot, 96);

OSKERNEL_STANDS_AT(OSQTrigger, q, 152);
OSKERNEL_STANDS_AT(OSQTrigger, minqlen, 156);
OSKERNEL_STANDS_AT(OSQTrigger, maxqlen, 160);

OSKERNEL_STANDS_AT(OSPollTrigger, pollfunc, 88);
OSKERNEL_STANDS_AT(OSPollTrigger, pobj, 92);
OSKERNEL_STANDS_AT(OSPollTrigger, paddr, 96);
OSKERNEL_STANDS_AT(OSPollTrigger, pvalue, 100);

OSKERNEL_STANDS_AT(OSTriggerTLS, event, 0);
OSKERNEL_STANDS_AT(OSTriggerTLS, OS_READY_LIST, 4);

OSKERNEL_STANDS_AT(OSTriggerTask, done, 125);
