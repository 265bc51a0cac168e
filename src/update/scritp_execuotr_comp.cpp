#include "update/scritp_execuotr_comp.h"

#include "base/result_codes.h"
#include "comp/comp_msg.h"
#include "log/file_public.h"
#include "log/run_log.h"
#include "securec.h"
#include "update/script_exe_common.h"
#include "update/script_exe_messages.h"
#include "update/script_feature_id.h"
#include "update/script_record.h"
#include "update/script_run.h"
#include "update/send_record.h"
#include "verify/signature.h"
#include "verify/signature_normal.h"

namespace {

using TolaCmpMsg::TolaMsgExeUpdateAuthVerifyAckData;
using TolaCmpMsg::TolaMsgExeUpdateAuthVerifyData;
using TolaCmpMsg::TolaMsgExeUpdateScriptAckData;
using TolaCmpMsg::TolaMsgExeUpdateScriptData;

constexpr uint16_t kModule = kScriptExeCompId;
constexpr uint32_t kInitStage = 2;
constexpr uint32_t kAuthPeriodMs = 30000;
constexpr size_t kPathSize = 256;

/// The request that waits for its authorisation.
struct PendingRequest {
  uint16_t source;
  uint16_t seqNo;
  uint32_t requesterTaskId;
  uint16_t cpuLimit;
  char scriptPath[kPathSize];
  char updateFile[kPathSize];
  char extendPara[128];
  uint32_t featureId;
  bool checkFeatureId;
};
static_assert(sizeof(PendingRequest) == 660, "a block of 660 bytes");

struct ExecutorState {
  bool busy;
  uint32_t authStartMs;
  uint16_t awaitedSeqNo;
  PendingRequest pending;
};
ExecutorState g_state;

/// What a script run needs of a request, wherever the request stands now.
struct ScriptRun {
  const char* scriptPath;
  const char* updateFile;
  const char* extendPara;  ///< null: none
  uint16_t cpuLimit;
  bool checkFeatureId;
  uint32_t featureId;
};

/// Results travel in 16 bits; a failure may not lose itself in them.
uint16_t WireResult(uint32_t result) {
  const auto cut = static_cast<uint16_t>(result);
  return cut == 0 && result != 0 ? static_cast<uint16_t>(kFailure) : cut;
}

const unsigned char* Data(const void* msg) {
  return static_cast<const unsigned char*>(msg);
}

uint32_t ReplyExeUpdateMsg(uint32_t requesterTaskId, uint32_t source, uint16_t seqNo, uint32_t result) {
  LOG_EVT(kModule, "src:%x, seq:%x, exe ret:%x", source, seqNo, result);
  TolaMsgExeUpdateScriptAckData reply;
  reply.requesterTaskId = requesterTaskId;
  reply.result = WireResult(result);
  return SendRecord(kScriptExeCompId, source, kMsgExeUpdateScriptAck, seqNo, reply);
}

uint32_t ReplyExeUpdateMsg(uint32_t requesterTaskId, const void* msg, uint32_t result) {
  return ReplyExeUpdateMsg(requesterTaskId, TolaCompGetSrcId(msg), TolaCompMsgGetSeqNo(msg), result);
}

uint32_t SendUpdateAuthMsg(uint16_t seqNo, uint32_t requesterTaskId) {
  TolaMsgExeUpdateAuthVerifyData record;
  record.requesterTaskId = requesterTaskId;
  return WireResult(SendRecord(kScriptExeCompId, kUpdateAuthCompId, kMsgUpdateAuth, seqNo, record));
}

/// Asking it clears the busy flag once the period has passed; no timer does.
bool isTimeOut() {
  if (GetMsTime() - g_state.authStartMs <= kAuthPeriodMs) return false;
  g_state.busy = false;
  return true;
}

uint32_t CheckInputPara(const TolaMsgExeUpdateScriptData& request, bool& needSignature) {
  const char* script = request.scriptFullPath.c_str();
  const char* updateFile = request.updateFileFullPath.c_str();
  const char* path = request.signaturePath.c_str();
  const char* list = request.fileListFileName.c_str();
  const char* signature = request.signatureFileName.c_str();
  LOG_EVT(kModule, "sc:%s, F:%s, para:%s", script, updateFile, request.extendScriptPara.c_str());
  LOG_EVT(kModule, "sPath:%s, list:%s, sig:%s, crl:%s, ca:%u", path, list, signature,
          request.signatureCrlFileName.c_str(), request.caType);
  needSignature = *path != '\0';
  if (*script == '\0' || *updateFile == '\0') return kExeErrPara;
  if (needSignature && (*list == '\0' || *signature == '\0')) return kExeErrPara;
  return kSuccess;
}

bool JoinPath(char (&path)[kPathSize], const char* directory, const char* name) {
  return snprintf_s(path, sizeof(path), sizeof(path) - 1, "%s/%s", directory, name) > 0;
}

uint32_t checkSignature(const TolaMsgExeUpdateScriptData& request) {
  const char* directory = request.signaturePath.c_str();
  char signature[kPathSize];
  char fileList[kPathSize];
  char crl[kPathSize];
  if (!JoinPath(signature, directory, request.signatureFileName.c_str()) ||
      !JoinPath(fileList, directory, request.fileListFileName.c_str()) ||
      !JoinPath(crl, directory, request.signatureCrlFileName.c_str())) {
    return kErrFormat;
  }
  SIGNATURE_VERIFY_REQ_S verify;
  verify.signaturePath = signature;
  verify.contentPath = fileList;
  verify.crlPath = crl;
  uint32_t ret = TolaSingleFileSignatureVerify(verify, request.caType);
  if (ret != 0) return ret;
  ret = UpgradePackHashVerify(fileList, request.updateFileFullPath.c_str());
  if (ret != 0) return ret;
  const char* script = request.scriptFullPath.c_str();
  // A script that is not there yet comes out of the package, which has just been checked.
  return CheckFileExist(script) == 0 ? UpgradePackHashVerify(fileList, script) : kSuccess;
}

uint32_t GetUpdateAuthVerify(const void* msg, const TolaMsgExeUpdateScriptData& request) {
  g_state.awaitedSeqNo = TolaCompMsgGetSeqNo(msg);
  const uint32_t sent = SendUpdateAuthMsg(g_state.awaitedSeqNo, request.requesterTaskId);
  if (sent != 0) return sent;
  PendingRequest& pending = g_state.pending;
  pending = {};
  pending.featureId = request.featureId;
  pending.checkFeatureId = request.checkFeatureId != 0;
  pending.source = static_cast<uint16_t>(TolaCompGetSrcId(msg));
  pending.seqNo = g_state.awaitedSeqNo;
  pending.requesterTaskId = request.requesterTaskId;
  pending.cpuLimit = request.cpuLimit;
  if (strcpy_s(pending.scriptPath, sizeof(pending.scriptPath), request.scriptFullPath.c_str()) != EOK ||
      strcpy_s(pending.updateFile, sizeof(pending.updateFile), request.updateFileFullPath.c_str()) != EOK ||
      strcpy_s(pending.extendPara, sizeof(pending.extendPara), request.extendScriptPara.c_str()) != EOK) {
    return kErrCopy;  // kept: the authorisation request has gone out already
  }
  return kSuccess;
}

/// Takes the script out of its package and settles the file that it gets as its argument.
/// @param keep whether a failure is remembered for a repeated request
uint32_t ExtractScript(const ScriptRun& run, char (&innerFile)[kPathSize], const char*& fileArgument,
                       bool& keep) {
  keep = true;
  uint32_t ret = GetInnerScript(run.scriptPath, run.updateFile, innerFile, sizeof(innerFile));
  if (ret != 0) return ret;
  if (!IsBankScript(run.scriptPath)) fileArgument = innerFile;
  if (!run.checkFeatureId) return kSuccess;
  ret = CheckFeatureIdFromFile(run.scriptPath, run.featureId);
  if (ret != 0) {
    keep = false;
    // A script that stays would be taken as it is by the next request, without this check.
    (void)TOLA_DeleteFile(kModule, run.scriptPath);
  }
  return ret;
}

uint32_t ProcExeScriptFile(const void* msg, const ScriptRun& run) {
  const uint16_t seqNo = TolaCompMsgGetSeqNo(msg);
  uint16_t saved = 0;
  if (FindScripExeRecord(seqNo, saved)) {
    LOG_EVT(kModule, "find msg=%u,ret=%u", seqNo, saved);
    return saved;
  }
  char innerFile[kPathSize] = {};
  const char* fileArgument = run.updateFile;
  if (CheckFileExist(run.scriptPath) != 0) {
    bool keep = true;
    const uint32_t ret = ExtractScript(run, innerFile, fileArgument, keep);
    if (ret != 0) {
      if (keep) SaveScripExeRecord(seqNo, WireResult(ret));
      return ret;
    }
  }
  const uint32_t ret = ExeScriptFileCommon(run.scriptPath, fileArgument, run.extendPara, run.cpuLimit);
  SaveScripExeRecord(seqNo, WireResult(ret));
  LOG_EVT(kModule, "save msg=%u,ret=%u", seqNo, ret);
  return ret;
}

uint32_t VerifyAndRun(const void* msg, const TolaMsgExeUpdateScriptData& request) {
  const uint32_t ret = checkSignature(request);
  if (ret != 0) return ret;
  const char* extend = request.extendScriptPara.empty() ? nullptr : request.extendScriptPara.c_str();
  return ProcExeScriptFile(msg, {request.scriptFullPath.c_str(), request.updateFileFullPath.c_str(), extend,
                                 request.cpuLimit, request.checkFeatureId != 0, request.featureId});
}

uint32_t ProcExeUpdateMsg(const void* msg) {
  LOG_EVT(kModule, "Rx exec msg");
  TolaMsgExeUpdateScriptData request;
  const uint32_t parsed = request.ParseFromMsg(Data(msg), TolaCompGetMsgLen(msg), true);
  if (parsed != 0) return parsed;
  if (g_state.busy && !isTimeOut()) return ReplyExeUpdateMsg(request.requesterTaskId, msg, kExeErrBusy);

  bool needSignature = true;
  uint32_t ret = CheckInputPara(request, needSignature);
  if (ret == 0) {
    g_state.busy = true;
    if (needSignature) {
      ret = VerifyAndRun(msg, request);
    } else {
      ret = GetUpdateAuthVerify(msg, request);
      if (ret == 0) {
        g_state.authStartMs = GetMsTime();
        return kSuccess;  // ProcAuthReplyMsg answers
      }
    }
  }
  g_state.busy = false;
  return ReplyExeUpdateMsg(request.requesterTaskId, msg, ret);
}

uint32_t ProcAuthReplyMsg(const void* msg) {
  if (!g_state.busy) {
    LOG_ERR(kModule, "not work!");
    return kSuccess;
  }
  const uint16_t seqNo = TolaCompMsgGetSeqNo(msg);
  if (seqNo != g_state.awaitedSeqNo) {
    LOG_ERR(kModule, "seq:%d, %d", seqNo, g_state.awaitedSeqNo);
    return kSuccess;
  }
  const PendingRequest& pending = g_state.pending;
  if (isTimeOut()) {
    return ReplyExeUpdateMsg(pending.requesterTaskId, pending.source, pending.seqNo, kExeErrTimeout);
  }
  TolaMsgExeUpdateAuthVerifyAckData reply;
  const uint32_t parsed = reply.ParseFromMsg(Data(msg), TolaCompGetMsgLen(msg));
  // kept: a garbled reply leaves the executor busy for the rest of the period
  if (parsed != 0) return parsed;
  uint32_t ret = kExeErrAuthRefused;
  if (reply.result != 0) {
    LOG_ERR(kModule, "auth fail:%d", reply.result);
  } else {
    ret = ProcExeScriptFile(msg, {pending.scriptPath, pending.updateFile, pending.extendPara,
                                  pending.cpuLimit, pending.checkFeatureId, pending.featureId});
  }
  g_state.busy = false;
  return ReplyExeUpdateMsg(pending.requesterTaskId, pending.source, pending.seqNo, ret);
}

}  // namespace

uint32_t TOLA_ScriptExeCompConstructor(uint32_t stage) {
  if (stage == kInitStage) LOG_EVT(kModule, "script exe init");
  return kSuccess;
}

uint32_t TOLA_ScriptExeCompDestructor(void) {
  return kSuccess;
}

void TOLA_ScriptExeCompMsgProc(void* message) {
  if (message == nullptr) return;
  const uint32_t id = TolaCompGetMsgId(message);
  uint32_t ret = kSuccess;
  if (id == kMsgExeUpdateScript) ret = ProcExeUpdateMsg(message);
  if (id == kMsgUpdateAuthAck) ret = ProcAuthReplyMsg(message);
  if (ret != 0) {
    LOG_ERR(kModule, "recvMsg:0x%x,0x%x,%d,%d", TolaCompGetSrcId(message), id,
            static_cast<int>(TolaCompGetMsgLen(message)), static_cast<int>(ret));
  }
}
