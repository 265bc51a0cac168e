/// The layouts that the board's 32-bit programs share, with each other and with what they stored, in one
/// list. Compiled for 32 bits only. Records that are no header's business are asserted where they are: the
/// pending request (660 bytes) in scritp_execuotr_comp.cpp, the heart beats' slot (12) in
/// heart_beat_manager.cpp, the arena's type record (28) and block (8) in tola_mem_block_manage.cpp.

#include <stddef.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>

#include "cfg/hash_table.h"
#include "cfg/tola_mem_block_manage.h"
#include "cfg/tola_shm.h"
#include "cms/root_ca.h"
#include "cms/verify_ctx.h"
#include "comp/comp_manager.h"
#include "fault/box.h"
#include "frame/public_file_cfg.h"
#include "log/log_file_state.h"
#include "msg/ipc_frame.h"
#include "msg/msg_interface_public.h"

static_assert(sizeof(void*) == 4 && sizeof(long) == 4);
static_assert(static_cast<char>(-1) > 0, "char is unsigned on the board");
static_assert(sizeof(time_t) == 8 && sizeof(stat::st_mtim.tv_sec) == 8, "dates after 2038");
static_assert(sizeof(off_t) == 8 && sizeof(stat::st_size) == 8, "files beyond 2 GiB");

static_assert(sizeof(TOLA_COMP_TYPE_S) == 140);
static_assert(offsetof(TOLA_COMP_TYPE_S, name) == 0 && offsetof(TOLA_COMP_TYPE_S, typeId) == 24 &&
              offsetof(TOLA_COMP_TYPE_S, version) == 28 && offsetof(TOLA_COMP_TYPE_S, priority) == 76 &&
              offsetof(TOLA_COMP_TYPE_S, constructor) == 80 && offsetof(TOLA_COMP_TYPE_S, destructor) == 84 &&
              offsetof(TOLA_COMP_TYPE_S, msgProc) == 88 && offsetof(TOLA_COMP_TYPE_S, beforeReg) == 92 &&
              offsetof(TOLA_COMP_TYPE_S, afterStart) == 96 && offsetof(TOLA_COMP_TYPE_S, instNum) == 100 &&
              offsetof(TOLA_COMP_TYPE_S, inst) == 104 && offsetof(TOLA_COMP_TYPE_S, stage) == 136);
static_assert(sizeof(TOLA_COMP_INST_S) == 8);
static_assert(sizeof(TOLA_COMP_REG_SET_S) ==
              20 + 4 + kCompTypeMax * 140 + 4 + kCompDstMax * (24 + kCompAddrMax * 8));
static_assert(sizeof(TOLA_COMP_REG_BLOCK_S) == 2 * sizeof(TOLA_COMP_REG_SET_S));

static_assert(sizeof(tagMsgBuf) == 12 && sizeof(MsgModuleBlock) == 16);
static_assert(offsetof(MsgModuleBlock, taskId) == 4 && offsetof(MsgModuleBlock, eventMask) == 8);
static_assert(sizeof(tagMsgBuf*) == 4, "an entry of a module's queue");
static_assert(sizeof(IPC_MSG_S) == 4 + 4096 && offsetof(IPC_MSG_S, payload) == 4 + 20);

static_assert(sizeof(HASH_TABLE_NODE) == 4, "a node of n bytes takes n + 4");
static_assert(sizeof(MEM_BLOCK_KEY_PARA_INFO_S) == 20);
static_assert(sizeof(TolaShmMemPtInfo) == 52 && offsetof(TolaShmMemPtInfo, size) == 36);

static_assert(sizeof(SIGVFY_CTX_PARAM_S) == 68 && sizeof(TOLA_ROOT_CA_S) == 12);
static_assert(sizeof(TOLA_SIGNAL_BOX_S) == 768);

static_assert(sizeof(HaInitInfo) == 12 && offsetof(HaInitInfo, haSwitch) == 8 &&
              offsetof(HaInitInfo, defaultState) == 10);
static_assert(sizeof(runlog::FileHead) == 12 && offsetof(runlog::FileHead, offset) == 4 &&
              offsetof(runlog::FileHead, magic) == 8);
