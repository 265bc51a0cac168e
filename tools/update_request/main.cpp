/// `update_request` hands one update request to the board's main process, waits, and says what came of it.

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

#include <exception>

#include "board_link/board_link.h"
#include "options.h"
#include "update/update_result.h"

namespace {

enum ExitStatus : int { kExitDone = 0, kExitRefused = 1, kExitUsage = 2, kExitNoAnswer = 3 };

uint32_t SetIfGiven(TolaCmpMsg::MsgText& field, const std::string& text, uint32_t limit) {
  return text.empty() ? 0 : field.Set(text.data(), static_cast<uint32_t>(text.size()), limit);
}

bool FillRequest(const RequestOptions& options, board_link::Request& request) {
  auto& record = request.record;
  request.kind = options.kind;
  request.authorisation = options.authorisation;
  request.json = options.json;
  request.app = options.app;
  request.words = options.words;
  record.caType = options.caType;
  record.featureId = options.featureId;
  record.checkFeatureId = options.checkFeatureId ? 1 : 0;
  request.cpuLimit = options.cpuLimit;
  return SetIfGiven(record.scriptFullPath, options.script, record.kPathLimit) == 0 &&
         SetIfGiven(record.updateFileFullPath, options.package, record.kPathLimit) == 0 &&
         SetIfGiven(record.signaturePath, options.signatureDir, record.kNameLimit) == 0 &&
         SetIfGiven(record.fileListFileName, options.list, record.kNameLimit) == 0 &&
         SetIfGiven(record.signatureFileName, options.signature, record.kNameLimit) == 0 &&
         SetIfGiven(record.signatureCrlFileName, options.crl, record.kNameLimit) == 0 &&
         SetIfGiven(record.extendScriptPara, options.parameter, record.kNameLimit) == 0;
}

int NoAnswer(const RequestOptions& options, const char* what, const char* why) {
  if (options.json) {
    (void)printf("{\"answered\":false,\"reason\":\"%s\"}\n", what);
  } else {
    (void)fprintf(stderr,
                  "update_request: the board does not answer: %s at %s (%s); is board_main running?\n", what,
                  options.socket.c_str(), why);
  }
  return kExitNoAnswer;
}

void PrintResult(const RequestOptions& options, uint32_t result) {
  const auto code = static_cast<uint16_t>(result);
  const UpdateResult* known = result > UINT16_MAX ? nullptr : FindUpdateResult(code);
  const char* name = known == nullptr ? "unknown" : known->name;
  const char* meaning = known == nullptr ? "unknown result" : known->meaning;
  if (options.json) {
    (void)printf("{\"answered\":true,\"result\":%u,\"name\":\"%s\",\"meaning\":\"%s\"}\n", result, name,
                 meaning);
  } else {
    (void)printf("result %u (%#x): %s\n", result, result, meaning);
  }
}

/// What the board said to a request that is no update.
void PrintText(const RequestOptions& options, uint32_t result, const std::string& text) {
  if (options.kind == board_link::Kind::kStatus) {
    (void)fputs(text.c_str(), stdout);  // text or JSON, as it was asked for
  } else if (options.json) {
    (void)printf("{\"answered\":true,\"result\":%u,\"meaning\":\"%s\"}\n", result, text.c_str());
  } else {
    (void)printf("%s\n", text.c_str());
  }
}

int Ask(const RequestOptions& options) {
  board_link::Request request;
  if (!FillRequest(options, request)) {
    (void)fprintf(stderr, "update_request: a field could not be set\n");
    return kExitUsage;
  }
  const auto packet = board_link::EncodeRequest(request);
  if (packet.empty()) {
    (void)fprintf(stderr, "update_request: a name or the list of numbers is too long\n");
    return kExitUsage;
  }
  const base::UniqueFd link = board_link::Connect(options.socket.c_str());
  if (!link) return NoAnswer(options, "nobody listens", strerror(errno));
  if (!board_link::PeerIsTrusted(link.get()))
    return NoAnswer(options, "a stranger listens", "another user's process");

  if (send(link.get(), packet.data(), packet.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(packet.size())) {
    return NoAnswer(options, "the request could not be sent", strerror(errno));
  }
  pollfd waiting = {link.get(), POLLIN, 0};
  const auto ready = TEMP_FAILURE_RETRY(poll(&waiting, 1, static_cast<int>(options.timeoutSeconds) * 1000));
  if (ready <= 0) return NoAnswer(options, "no result in time", "the update may still be running");

  std::vector<unsigned char> answer(board_link::kPacketMax);
  const ssize_t length = recv(link.get(), answer.data(), answer.size(), 0);
  uint32_t result = 0;
  std::string text;
  if (length <= 0 ||
      !board_link::DecodeAnswer(std::span(answer).first(static_cast<size_t>(length)), result, text)) {
    return NoAnswer(options, "the link broke before the result", "board_main ended or refused the request");
  }
  if (options.kind == board_link::Kind::kUpdate) {
    PrintResult(options, result);
  } else {
    PrintText(options, result, text);
  }
  return result == 0 ? kExitDone : kExitRefused;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    RequestOptions options;
    if (!ParseOptions(argc, argv, options)) {
      (void)fprintf(stderr, "update_request: see update_request --help\n");
      return kExitUsage;
    }
    if (options.help) {
      PrintUsage(stdout);
      return kExitDone;
    }
    return Ask(options);
  } catch (const std::exception& error) {
    (void)fprintf(stderr, "update_request: %s\n", error.what());
    return kExitNoAnswer;
  }
}
