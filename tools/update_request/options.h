/// The command line of `update_request`.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include <string>
#include <vector>

#include "board_link/board_link.h"

struct RequestOptions {
  board_link::Kind kind = board_link::Kind::kUpdate;
  board_link::Authorisation authorisation = board_link::Authorisation::kRefuse;
  bool authorisationIsGiven = false;
  std::string app;              ///< of the requests about an application
  std::vector<uint16_t> words;  ///< of a debug request
  std::string script;
  std::string package;
  std::string signatureDir;
  std::string list;
  std::string signature;
  std::string crl;
  std::string parameter;
  uint8_t caType = 0;
  uint16_t cpuLimit = 0;
  uint32_t featureId = 0;
  bool checkFeatureId = false;
  uint32_t timeoutSeconds = 45 * 60;  ///< longer than the requester proxy waits in all
  std::string socket;
  bool json = false;
  bool help = false;
};

void PrintUsage(FILE* stream);

/// False when the command line is wrong; one line on standard error says what to do.
[[nodiscard]] bool ParseOptions(int argc, char** argv, RequestOptions& options);
