/// What the board's 32-bit programs share, with each other and with what they stored, beyond the sizes that
/// are asserted where the records are declared. Compiled for 32 bits only.

#include <stddef.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>

#include "comp/comp_manager.h"
#include "frame/public_file_cfg.h"
#include "log/log_file_state.h"
#include "msg/msg_interface_public.h"

static_assert(sizeof(void*) == 4 && sizeof(long) == 4);
static_assert(static_cast<char>(-1) > 0, "char is unsigned on the board");
static_assert(sizeof(time_t) == 8 && sizeof(stat::st_mtim.tv_sec) == 8, "dates after 2038");
static_assert(sizeof(off_t) == 8 && sizeof(stat::st_size) == 8, "files beyond 2 GiB");

static_assert(offsetof(TOLA_COMP_TYPE_S, name) == 0 && offsetof(TOLA_COMP_TYPE_S, typeId) == 24 &&
              offsetof(TOLA_COMP_TYPE_S, version) == 28 && offsetof(TOLA_COMP_TYPE_S, priority) == 76 &&
              offsetof(TOLA_COMP_TYPE_S, constructor) == 80 && offsetof(TOLA_COMP_TYPE_S, destructor) == 84 &&
              offsetof(TOLA_COMP_TYPE_S, msgProc) == 88 && offsetof(TOLA_COMP_TYPE_S, beforeReg) == 92 &&
              offsetof(TOLA_COMP_TYPE_S, afterStart) == 96 && offsetof(TOLA_COMP_TYPE_S, instNum) == 100 &&
              offsetof(TOLA_COMP_TYPE_S, inst) == 104 && offsetof(TOLA_COMP_TYPE_S, stage) == 136);
static_assert(sizeof(TOLA_COMP_REG_SET_S) ==
              20 + 4 + kCompTypeMax * 140 + 4 + kCompDstMax * (24 + kCompAddrMax * 8));
static_assert(offsetof(MsgModuleBlock, taskId) == 4 && offsetof(MsgModuleBlock, eventMask) == 8);
static_assert(offsetof(HaInitInfo, haSwitch) == 8 && offsetof(HaInitInfo, defaultState) == 10);
static_assert(offsetof(runlog::FileHead, offset) == 4 && offsetof(runlog::FileHead, magic) == 8);
