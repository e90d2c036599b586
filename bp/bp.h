// The whole public runtime: all that a process on the bus includes.
#ifndef BP_BP_H
#define BP_BP_H

#include "bp/bp_clock.h"
#include "bp/bp_list.h"
#include "bp/bp_msg_hdr.h"
#include "bp/bp_sem.h"
#include "bp/bp_types.h"

#include "bp/bp_log/calendar.h"
#include "bp/bp_log/log.h"
#include "bp/bp_log/log_file.h"
#include "bp/bp_log/shell.h"
#include "bp/bp_log/thread_info.h"

#include "bp/bp_util/tail_file.h"

#include "bp/bp_module/ack_wait.h"
#include "bp/bp_module/buf_mgr.h"
#include "bp/bp_module/config.h"
#include "bp/bp_module/dumps.h"
#include "bp/bp_module/module_info.h"
#include "bp/bp_module/module_pool.h"
#include "bp/bp_module/msg_proc.h"
#include "bp/bp_module/msg_queue.h"
#include "bp/bp_module/proc_info.h"
#include "bp/bp_module/slab.h"

#include "bp/bp_sendmsg/message.h"

#include "bp/bp_timer/timer_calc.h"
#include "bp/bp_timer/timer_info.h"
#include "bp/bp_timer/timer_pool.h"
#include "bp/bp_timer/timer_regist.h"
#include "bp/bp_timer/timer_scan.h"

#include "bp/bp_module/main_thread.h"
#include "bp/bp_module/module_thread.h"
#include "bp/bp_module/pace.h"
#include "bp/bp_module/proc_init.h"
#include "bp/bp_module/receive.h"
#include "bp/bp_module/recv_ring.h"
#include "bp/bp_module/regist.h"
#include "bp/bp_module/socket.h"

#include "bp/bp_sendmsg/send.h"
#include "bp/bp_sendmsg/socket_send.h"
#include "bp/bp_sendmsg/sync_request.h"

#include "bp/bp_cmd/ack.h"
#include "bp/bp_cmd/cmd_answer.h"
#include "bp/bp_cmd/cmd_serve.h"
#include "bp/bp_cmd/cmd_table.h"

#endif
