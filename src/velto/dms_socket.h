/// The sockets of component processes: their directory, their names and who may be at the other end.
///
/// A process's socket is "<IPv4 text>_<process id>", mode 0600, in the directory of the key dms.dir. Nobody
/// is trusted for a name alone: the directory must not be writable by group or others, and directory owner
/// and peer must be root, this process's own user or the user of the key dms.peer_user.
///
/// Whoever owns the directory can put another socket in place of any in it. Without that key it is the user
/// who runs the process; with it, a directory that root makes is given to the named user, who is then trusted
/// to ask for updates and to answer for them.
#pragma once

#include "base/owners.h"
#include "velto/dms_internal.h"
#include "velto/kel_wait.h"

namespace velto {

/// Binds the socket and listens. The file of a process that died is replaced, that of a living one never.
/// @retval kDmsErrSocket one line on standard error says why
[[nodiscard]] uint32_t SocketBind(const ProcAddr& own, base::UniqueFd& listener);

/// Connects to a process; the socket does not block.
/// @retval kDmsErrNoPeer nobody listens @retval kDmsErrSocket dms.dir is unsafe @retval kDmsErrPeerUser
/// @retval kDmsErrLink
[[nodiscard]] uint32_t SocketConnect(const ProcAddr& peer, const Deadline& deadline,
                                     base::UniqueFd& connection);

/// Takes a waiting connection of an allowed user; none when nobody waits, the user is not allowed (errno
/// EPERM) or the system refuses (errno).
[[nodiscard]] base::UniqueFd SocketAccept(int listener);

/// Waits for poll(2) `events` on a connection. False when the deadline passed first.
[[nodiscard]] bool SocketWait(int connection, short events, const Deadline& deadline);

/// Longest sleep in poll(2) while a deadline runs: how soon a moved manual clock is noticed.
inline constexpr int kPollSliceMs = 20;

}  // namespace velto
