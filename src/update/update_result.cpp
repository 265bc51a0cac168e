#include "update/update_result.h"

#include <algorithm>
#include <iterator>

namespace {

// Ascending by code. A name never changes once it is out: scripts of users compare it.
constexpr UpdateResult kResults[] = {
    {0, "success", "success: the script reported OK"},
    {1, "failure", "the script reported no OK, could not be run, or was not in the package"},
    {37, "feature-id", "the script's feature id is below the required one"},
    {0x0501, "send-argument", "a message could not be sent: wrong argument"},
    {0x0502, "send-no-address", "a message could not be sent: the destination's address is not known"},
    {0x0503, "send-no-peer", "a message could not be sent: the destination's process does not listen"},
    {0x0504, "send-refused", "a message was refused: no such enabled component there, or its queue is full"},
    {0x0505, "send-queue-full", "a message could not be sent: the destination's queue is full"},
    {0x0506, "send-too-long",
     "a message could not be sent: it is longer than messages between processes may be"},
    {0x0507, "send-far-host", "a message could not be sent: the destination is on another address"},
    {0x0508, "send-link", "the link to the destination's process broke or did not answer in time"},
    {0x0509, "send-peer-user", "the destination's process runs as a user who is not allowed"},
    {0x050A, "send-table-full", "a message could not be sent: an address table is full"},
    {0x050B, "send-socket", "a message could not be sent: this process's own socket could not be bound"},
    {9474, "message-alloc", "a message could not be allocated"},
    {9476, "fields-missing", "a field of the request is missing"},
    {9499, "boot-bank-open", "a boot-bank file could not be opened"},
    {9599, "serialise", "a message could not be serialised"},
    {9600, "timeout", "the authorisation or the reply did not come in time"},
    {9601, "busy", "another request is being handled"},
    {9602, "boot-bank-rename", "the rewritten boot-bank file could not be put in place"},
    {9603, "auth-refused", "the authorisation was refused"},
    {14670, "too-many-arguments", "a command of the update has too many arguments"},
    {14671, "command-refused", "a command of the update is empty, too long or holds a semicolon"},
    {14687, "pipe-open", "a file or pipe could not be opened"},
    {14699, "character", "a command holds a character that is not allowed"},
    {14700, "null-text", "a name is missing"},
    {17665, "copy", "the pending request could not be saved: a field is too long"},
    {17666, "member-name", "a member name of the package could not be examined"},
    {17667, "format", "a path or command line is too long"},
    {17669, "path-too-long", "a path of the signature check is missing or too long"},
    {18690, "module-id", "a message could not be posted: the destination is no module"},
    {18696, "null-message", "a message could not be posted: there was none"},
    {18697, "not-registered", "a message could not be posted: the destination is not registered"},
    {18698, "module-queue", "a message could not be posted: the destination's queue is full or broken"},
    {18703, "no-message-manager", "a message could not be posted: the message manager is not running"},
    {18705, "no-ipc", "a message could not be posted: no hooks for application messages"},
    {18713, "conversion", "a message between modules could not be allocated"},
    {18714, "null-module-message", "a message between modules was missing"},
    {49410, "process-queue", "a message could not be posted: its process's queue is full or gone"},
    {49413, "module-map", "a message could not be posted: the map of modules could not be locked"},
    {49419, "own-module", "a message could not be posted: the destination is in this process"},
    {50946, "verify-argument", "an argument of the verification is missing or out of range"},
    {50949, "digest-text", "a digest's text did not fit"},
    {50955, "hash-open", "a file to hash could not be opened"},
    {50956, "hash-read", "a file to hash could not be read"},
    {50957, "hash-library", "the crypto library could not hash"},
    {50982, "verify-context", "the verification context could not be created"},
    {50984, "root-certificate", "a root or extra certificate could not be added"},
    {50985, "crl-load", "the revocation list could not be loaded"},
    {50986, "signature-error", "the signature check met an error before it judged the signature"},
    {50987, "signature", "the signature of the file list did not verify"},
    {50988, "list-open", "the file list could not be opened"},
    {50989, "list-count", "the file list has no FileNum="},
    {50990, "list-name", "an entry of the file list has no FileName="},
    {50991, "list-digest", "an entry of the file list has no SHA256-Digest="},
    {50992, "hash", "the digest of the package or script could not be computed"},
    {50994, "digest", "the package or script is not the one that was signed"},
    {50995, "list-entries", "the file list has more entries than FileNum= says"},
    {50996, "crl-missing", "no revocation list, neither supplied nor stored"},
    {50997, "crl-update", "the supplied revocation list could not be brought in"},
    {50998, "verify-memory", "out of memory during verification"},
    {50999, "update-directory", "the update directory could not be opened"},
    {51000, "stray-file", "the update directory holds a file that is not listed"},
    {51003, "file-type", "the update directory holds an entry that is neither file nor directory"},
};
static_assert(std::adjacent_find(std::begin(kResults), std::end(kResults),
                                 [](const UpdateResult& a, const UpdateResult& b) {
                                   return a.code >= b.code;
                                 }) == std::end(kResults),
              "ascending, no code twice");

}  // namespace

const UpdateResult* FindUpdateResult(uint16_t code) {
  const UpdateResult* at =
      std::lower_bound(std::begin(kResults), std::end(kResults), code,
                       [](const UpdateResult& entry, uint16_t wanted) { return entry.code < wanted; });
  return at != std::end(kResults) && at->code == code ? at : nullptr;
}

const char* UpdateResultText(uint16_t code) {
  const UpdateResult* result = FindUpdateResult(code);
  return result != nullptr ? result->meaning : "unknown result";
}
