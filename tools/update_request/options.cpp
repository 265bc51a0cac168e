#include "options.h"

#include <getopt.h>
#include <stdlib.h>

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
    "                        authorisation instead of verifying\n"
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
  return true;
}
