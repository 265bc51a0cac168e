/// None-real-time control: modules whose wake-ups are batched. Their messages are queued at once; their task
/// is woken by every n-th message, and by a timer for the rest.
///
/// Normal and high-priority posts count alike. The semaphore "MsgMgrNoneRealTime" guards the counts; it is
/// not held while an event is written. Any thread may call.
#pragma once

#include <stdint.h>

/// Puts `count` modules under control and switches it on. `msgCount` is the number of messages that wakes a
/// task (0: the timer alone does), `timeOut` the timer's interval in units of 10 ms, at most 100 (0: no
/// timer, the number alone does). Once this has succeeded, a later call returns 0 and changes nothing.
/// @retval kMsgErrSema the semaphore cannot be made
/// @retval 1 both `msgCount` and `timeOut` are 0, or 10 x `timeOut` is above 1000 (each one log line); null
/// ids;
///           an id that is no platform module; no memory; the timer cannot be started. Nothing is kept.
[[nodiscard]] uint32_t TOLA_NoneRealTimeMsgModuleRegist(uint32_t count, const uint16_t* moduleIds,
                                                        uint32_t msgCount, uint32_t timeOut);

/// Switches the control on (any value but 0) or off. Off: wake-ups that were held back are written now, and
/// none is held back any more. To switch to what stands already is 0 and does nothing.
/// @retval 1 no modules are registered; the timer cannot be started; or it cannot be stopped (one log line;
/// the
///           control is off all the same)
[[nodiscard]] uint32_t TOLA_NoneRealTimeMsgFuncSwitch(uint32_t on);

/// For the post: counts one message that was queued for `moduleId`, and tells whether its wake-up is to be
/// held back.
[[nodiscard]] bool MsgNoneRealTimeHoldsBack(uint16_t moduleId);
