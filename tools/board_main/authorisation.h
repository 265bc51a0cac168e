/// The authorising side, platform module 5: whoever asks for an update without a signature says beforehand
/// how the executor's question about it is to be answered. A question that nobody announced is refused.
/// Every function may be called by any task.
#pragma once

#include <stdint.h>

#include "board_link/board_link.h"

namespace board_main {

/// While it lives, questions about the requests of task `taskId` are answered by `answer`.
class AuthAnnouncement {
 public:
  AuthAnnouncement(uint32_t taskId, board_link::Authorisation answer);
  ~AuthAnnouncement();
  AuthAnnouncement(const AuthAnnouncement&) = delete;
  AuthAnnouncement& operator=(const AuthAnnouncement&) = delete;

 private:
  uint32_t taskId_;
};

/// Takes the question `seqNo` with its data. Blocks while the executor takes the answer.
void AuthQuestion(const uint8_t* data, uint32_t length, uint16_t seqNo);

/// Grants the questions that are held, however late. @return how many were answered
[[nodiscard]] uint32_t AuthRelease();

/// Questions that are held now.
[[nodiscard]] uint32_t AuthHeld();

}  // namespace board_main
