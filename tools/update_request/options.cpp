#include "options.h"

#include <getopt.h>
#include <stdlib.h>

#include <algorithm>

#include "board_link/board_link.h"

namespace {

using Record = TolaCmpMsg::TolaMsgExeUpdateScriptData;

constexpr char kUsage[] =
    "usage: update_request [option ...]\n"
    "Asks the board to run an update and waits for its result. Fields are passed on as they are: the board "
    "judges them.\n"
    "  --script PATH         script to run; taken out of the package when it does not exist on the board\n"
    "  --package PATH        update package on the board\n"
    "  --signature-dir DIR   directory of list, signature and revocation list; without it the board asks for "
    "an\n"
    "                        authorisation instead of verifying, and is refused it unless one of these is "
    "given:\n"
    "  --authorise           grant it\n"
    "  --refuse              refuse it\n"
    "  --hold                leave it unanswered until --release\n"
    "  --list NAME           signed file list in that directory\n"
    "  --signature NAME      detached signature in that directory\n"
    "  --crl NAME            revocation list in that directory; without it the board uses the stored one\n"
    "  --parameter TEXT      further argument for the script\n"
    "  --ca-type N           certificate family, 0 to 255 (default 0)\n"
    "  --cpu-limit PERCENT   limit of the script in percent of one CPU (default 0: none)\n"
    "  --feature-id N        lowest feature id that an unpacked script may declare (default: not checked)\n"
    "  --timeout SECONDS     how long to wait for the result (default 2700)\n"
    "  --socket PATH         where the board's main process listens (default /run/board_main.sock)\n"
    "  --json                print one JSON object instead of a line\n"
    "Instead of an update:\n"
    "  --status              what the main process knows of the board's processes\n"
    "  --release             grant the authorisations that are held\n"
    "  --restart NAME        end the application and start it again\n"
    "  --register-again NAME ask the application's fault agent to register again\n"
    "  --debug NAME:N,N,...  send the application's fault agent a debug request of these numbers\n"
    "Exit: 0 the update ran and succeeded, 1 it was refused or failed, 2 usage, 3 the board does not "
    "answer.\n";

enum Option : int {
  kScript = 256,
  kPackage,
  kSignatureDir,
  kList,
  kSignature,
  kCrl,
  kParameter,
  kCaType,
  kCpuLimit,
  kFeatureId,
  kTimeout,
  kSocket,
  kJson,
  kHelp,
  kAuthorise,
  kRefuse,
  kHold,
  kStatus,
  kRelease,
  kRestart,
  kRegisterAgain,
  kDebug,
};

constexpr option kOptions[] = {
    {"script", required_argument, nullptr, kScript},
    {"package", required_argument, nullptr, kPackage},
    {"signature-dir", required_argument, nullptr, kSignatureDir},
    {"list", required_argument, nullptr, kList},
    {"signature", required_argument, nullptr, kSignature},
    {"crl", required_argument, nullptr, kCrl},
    {"parameter", required_argument, nullptr, kParameter},
    {"ca-type", required_argument, nullptr, kCaType},
    {"cpu-limit", required_argument, nullptr, kCpuLimit},
    {"feature-id", required_argument, nullptr, kFeatureId},
    {"timeout", required_argument, nullptr, kTimeout},
    {"socket", required_argument, nullptr, kSocket},
    {"json", no_argument, nullptr, kJson},
    {"help", no_argument, nullptr, kHelp},
    {"authorise", no_argument, nullptr, kAuthorise},
    {"refuse", no_argument, nullptr, kRefuse},
    {"hold", no_argument, nullptr, kHold},
    {"status", no_argument, nullptr, kStatus},
    {"release", no_argument, nullptr, kRelease},
    {"restart", required_argument, nullptr, kRestart},
    {"register-again", required_argument, nullptr, kRegisterAgain},
    {"debug", required_argument, nullptr, kDebug},
    {},
};

struct TextOption {
  int option;
  std::string RequestOptions::*field;
  size_t limit;  ///< what the field can carry on its way to the board
};

constexpr TextOption kTexts[] = {
    {kScript, &RequestOptions::script, Record::kPathLimit},
    {kPackage, &RequestOptions::package, Record::kPathLimit},
    {kSignatureDir, &RequestOptions::signatureDir, Record::kNameLimit},
    {kList, &RequestOptions::list, Record::kNameLimit},
    {kSignature, &RequestOptions::signature, Record::kNameLimit},
    {kCrl, &RequestOptions::crl, Record::kNameLimit},
    {kParameter, &RequestOptions::parameter, Record::kNameLimit},
    {kSocket, &RequestOptions::socket, 107},
};

const char* NameOf(int value) {
  for (const option& each : kOptions) {
    if (each.name != nullptr && each.val == value) return each.name;
  }
  return "?";
}

template <class Number>
bool SetNumber(int value, const char* text, uint64_t highest, Number& number) {
  char* end = nullptr;
  const unsigned long long parsed = strtoull(text, &end, 0);
  if (*text < '0' || *text > '9' || *end != '\0' || parsed > highest) {
    (void)fprintf(stderr, "update_request: --%s takes a number from 0 to %llu, not '%s'\n", NameOf(value),
                  static_cast<unsigned long long>(highest), text);
    return false;
  }
  number = static_cast<Number>(parsed);
  return true;
}

bool SetText(const TextOption& row, const char* text, RequestOptions& options) {
  std::string& field = options.*row.field;
  field = text;
  if (field.size() <= row.limit) return true;
  (void)fprintf(stderr, "update_request: --%s carries at most %zu characters, not %zu: use a shorter path\n",
                NameOf(row.option), row.limit, field.size());
  return false;
}

bool SetAuthorisation(board_link::Authorisation answer, RequestOptions& options) {
  options.authorisation = answer;
  options.authorisationIsGiven = true;
  return true;
}

bool SetKind(int value, const char* text, RequestOptions& options) {
  switch (value) {
    case kStatus:
      options.kind = board_link::Kind::kStatus;
      return true;
    case kRelease:
      options.kind = board_link::Kind::kRelease;
      return true;
    case kRestart:
      options.kind = board_link::Kind::kRestart;
      break;
    case kRegisterAgain:
      options.kind = board_link::Kind::kRegisterAgain;
      break;
    default:
      options.kind = board_link::Kind::kDebug;
      break;
  }
  options.app = text;
  if (value != kDebug) return true;
  size_t at = options.app.rfind(':');
  const std::string numbers = at == std::string::npos ? "" : options.app.substr(at + 1);
  options.app.resize(at == std::string::npos ? 0 : at);
  for (at = 0; at <= numbers.size();) {
    const size_t end = std::min(numbers.find(',', at), numbers.size());
    uint16_t& word = options.words.emplace_back();
    if (!SetNumber(value, numbers.substr(at, end - at).c_str(), UINT16_MAX, word)) return false;
    at = end + 1;
  }
  return true;
}

bool SetOption(int value, const char* text, RequestOptions& options) {
  for (const TextOption& row : kTexts) {
    if (row.option == value) return SetText(row, text, options);
  }
  switch (value) {
    case kCaType:
      return SetNumber(value, text, UINT8_MAX, options.caType);
    case kCpuLimit:
      return SetNumber(value, text, UINT16_MAX, options.cpuLimit);
    case kFeatureId:
      options.checkFeatureId = true;
      return SetNumber(value, text, UINT32_MAX, options.featureId);
    case kTimeout:
      return SetNumber(value, text, 24 * 60 * 60, options.timeoutSeconds);
    case kJson:
      options.json = true;
      return true;
    case kHelp:
      options.help = true;
      return true;
    case kAuthorise:
      return SetAuthorisation(board_link::Authorisation::kGrant, options);
    case kRefuse:
      return SetAuthorisation(board_link::Authorisation::kRefuse, options);
    case kHold:
      return SetAuthorisation(board_link::Authorisation::kHold, options);
    case kStatus:
    case kRelease:
    case kRestart:
    case kRegisterAgain:
    case kDebug:
      return SetKind(value, text, options);
    default:  // getopt_long has said what is wrong
      return false;
  }
}

}  // namespace

void PrintUsage(FILE* stream) {
  (void)fputs(kUsage, stream);
}

bool ParseOptions(int argc, char** argv, RequestOptions& options) {
  options.socket = board_link::kSocketPath;
  for (int value = 0; (value = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
    if (!SetOption(value, optarg, options)) return false;
  }
  if (optind != argc) {
    (void)fprintf(stderr, "update_request: '%s' is no option; every field has one, see --help\n",
                  argv[optind]);
    return false;
  }
  if (options.authorisationIsGiven && !options.signatureDir.empty()) {
    (void)fprintf(stderr,
                  "update_request: a signed update (--signature-dir) is verified, never authorised\n");
    return false;
  }
  return true;
}
