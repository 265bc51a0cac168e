/// Who takes part in an update exchange, the messages between them, and the results that only it gives.
#pragma once

#include <stdint.h>

inline constexpr uint32_t kScriptExeCompId = 4181;  ///< 0x1055: the executor; also its log module id
inline constexpr uint32_t kUpdateAuthCompId = 5;    ///< the component that grants updates without a signature

inline constexpr uint16_t kMsgExeUpdateScript = 41840;     ///< 0xA370: requester to executor
inline constexpr uint16_t kMsgExeUpdateScriptAck = 41841;  ///< 0xA371: executor to requester
inline constexpr uint16_t kMsgUpdateAuth = 41842;          ///< 0xA372: executor to the authorising component
inline constexpr uint16_t kMsgUpdateAuthAck = 41843;       ///< 0xA373: authorising component to executor

inline constexpr uint32_t kExeErrFeatureId = 37;  ///< 0x25: the script's feature id is below the required one
inline constexpr uint32_t kExeErrMsgAlloc = 9474;   ///< 0x2502: no message could be allocated
inline constexpr uint32_t kExeErrPara = 9476;       ///< 0x2504: request fields missing
inline constexpr uint32_t kExeErrBackOpen = 9499;   ///< 0x251B: a boot-bank file cannot be opened
inline constexpr uint32_t kExeErrSerialize = 9599;  ///< 0x257F: a record does not fit its message
inline constexpr uint32_t kExeErrTimeout =
    9600;  ///< 0x2580: the authorisation period, or the proxy's wait, passed
inline constexpr uint32_t kExeErrBusy = 9601;  ///< 0x2581: another request is in hand
inline constexpr uint32_t kExeErrBackRename =
    9602;  ///< 0x2582: the rewritten boot-bank file could not be put in place
inline constexpr uint32_t kExeErrAuthRefused = 9603;  ///< 0x2583: the authorising component refused
