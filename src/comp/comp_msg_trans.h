/// The border between component messages and platform messages (tagMsgBuf), in both directions.
///
/// Source and sequence number of the one are source module and sub-type of the other; message id and type,
/// length and data go over unchanged.
#pragma once

#include <stdint.h>

#include "msg/msg_interface_public.h"

/// Platform to component: hands a copy of `msg` to component `destination`; frees `msg` on 0 and leaves it to
/// the caller otherwise. The message manager's component hook.
/// @retval 18714 (kCompErrNull) @retval 18713 (kCompErrAlloc) @retval 17665 (kErrCopy)
/// @retval other low 16 bits of the send's result
[[nodiscard]] uint32_t TolaSendMsgToComp(uint16_t destination, tagMsgBuf* msg, bool urgent);

/// A platform message with the content of `compMsg`, which stays the caller's; null when memory is used up or
/// its data is longer than a platform message carries.
[[nodiscard]] tagMsgBuf* TolaMsgAllocByCompMsg(const void* compMsg);

/// Component to platform: posts the content of `compMsg` to the module of the destination's low 16 bits; one
/// of priority 1 over the high-priority queue first. Consumes `compMsg` in every case.
/// @retval 1 no platform message could be made @retval other the post's result
[[nodiscard]] uint32_t SendCompMsgToTola(uint32_t destination, void* compMsg);
