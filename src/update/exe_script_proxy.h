/// The requesting side of an update: starts `update_active` when it does not run, sends the request and waits
/// for the result.
///
/// ExeScriptProxy blocks the calling task for up to 40 minutes. The component that receives messages 41841
/// and 41842 hands them to ProcUpdateExeScriptReplyMsg and ProcUpdateAuthReqMsg, which wake that task; so the
/// proxy never runs in that component's own task, it would wait for itself. Several tasks may wait at a time:
/// messages carry the id of the task that they are for. One task asks for one update at a time.
#pragma once

#include <stdint.h>

#include "update/script_exe_ids.h"

namespace TolaCmpMsg {
class TolaMsgExeUpdateScriptData;
}

/// Runs one update and returns its result. `compId` is the requesting component; `request`, whose texts are
/// its own and no views, gets `cpuLimit` and the calling task's id. With `needAuth` the request's signature
/// path is emptied, so that the executor asks for an authorisation, which is granted here when it arrives.
///
/// @retval 0..0xFFFF      the executor's result, see UpdateResultText
/// @retval 0              also: an authorisation was asked for that `needAuth` did not announce; it is
/// refused
/// @retval 1              null request, caller is no task, or `update_active` could not be started
/// @retval kExeErrTimeout no reply, also not to the second sending of the request
/// @retval other          the code of the start script or of the sending
[[nodiscard]] uint32_t ExeScriptProxy(uint32_t compId, TolaCmpMsg::TolaMsgExeUpdateScriptData* request,
                                      bool needAuth, uint16_t cpuLimit);

/// Makes sure that a process named update_active runs; starts it up to 5 times and watches each start for 8
/// seconds. Serialised over all threads. @retval 0 it runs @retval other the start script's code, or 1
[[nodiscard]] uint32_t CheckAndPullExeScriptProcess(uint32_t compId);

/// For messages 41841 and 41842 of the requesting component: `data` is the message's data, `seqNo` its
/// sequence number. Without the number a late reply to a request that was given up counts for the one that
/// the task waits for now; with it, it is dropped. The parse error is returned, or 1 for what was dropped;
/// else 0, or the result of waking the requesting task.
[[nodiscard]] uint32_t ProcUpdateExeScriptReplyMsg(const uint8_t* data, uint32_t length);
[[nodiscard]] uint32_t ProcUpdateExeScriptReplyMsg(const uint8_t* data, uint32_t length, uint16_t seqNo);
[[nodiscard]] uint32_t ProcUpdateAuthReqMsg(const uint8_t* data, uint32_t length, uint16_t seqNo);

/// Sends the request once, or up to 11 times a second apart on the runtime's clock.
/// @retval kExeErrMsgAlloc, kExeErrSerialize, or the result of the send
[[nodiscard]] uint32_t SendUpdateExeScriptMsg(uint32_t compId, uint16_t seqNo,
                                              TolaCmpMsg::TolaMsgExeUpdateScriptData& request);
[[nodiscard]] uint32_t TryToSendMsg(uint32_t compId, uint16_t seqNo,
                                    TolaCmpMsg::TolaMsgExeUpdateScriptData& request);

/// Answers the authorisation request `seqNo`; `result` 0 grants. Results as SendUpdateExeScriptMsg.
[[nodiscard]] uint32_t SendUpdateAuthReplyMsg(uint32_t compId, uint16_t seqNo, uint16_t result);
