/// The post behind TOLA_MsgPost and TOLA_HighPriMsgPost, for callers that must know who holds the message
/// now.
#pragma once

#include "msg/msg_interface_public.h"

/// TOLA_MsgPost, or with `urgent` TOLA_HighPriMsgPost. `*taken` tells whether the buffer left the caller,
/// which the result alone does not: without an IPC hook, 0 is the result for a message that nobody took.
[[nodiscard]] uint32_t MsgPost(uint16_t destination, tagMsgBuf* msg, bool urgent, bool* taken);

/// TOLA_MsgAlloc for a caller that writes every data byte itself: they are not cleared.
[[nodiscard]] tagMsgBuf* MsgAllocUncleared(uint16_t source, uint16_t type, uint16_t subType, uint32_t length);

/// Number of platform modules: their ids are below it.
[[nodiscard]] uint32_t MsgMaxModule();

/// Makes the handle that message buffers are counted under. @retval 1 the runtime has none left
[[nodiscard]] uint32_t MsgMemInit(uint32_t* handle);
