/// A board of the test's own with this build's programs, and the material to make packages for it.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/command.h"
#include "support/temp_dir.h"

namespace system_test {

/// What `update_request --json` said.
struct Answer {
  int status = -1;   ///< its exit status
  int result = -1;   ///< result code; -1 when it gave none
  std::string text;  ///< all of its output
};

class Board {
 public:
  Board();   ///< brings it up without any process of the platform
  ~Board();  ///< ends every process of it
  Board(const Board&) = delete;
  Board& operator=(const Board&) = delete;

  support::CommandResult Exec(const std::vector<std::string>& arguments) const;
  support::CommandResult Shell(const std::string& script) const { return Exec({"sh", "-c", script}); }
  void Put(const std::string& file, const std::string& path) const;
  std::string Read(const std::string& path) const { return Exec({"cat", path}).output; }
  bool Exists(const std::string& path) const { return Exec({"test", "-e", path}).status == 0; }

  void StartDaemon() const;  ///< returns when it takes requests
  void StartMain() const;    ///< board_main; returns when it takes requests
  bool DaemonRuns() const { return Exec({"pidof", "update_active"}).status == 0; }
  Answer Request(const std::vector<std::string>& options) const;
  std::string RunLog() const { return Read("/mnt/sub_bin/sys_log/update_active_run_log.log"); }

 private:
  bool WaitFor(const std::string& condition) const;

  support::TempDir dir_;
};

/// A certificate authority under this build's development root, one signer, and signed packages.
class Material {
 public:
  Material();

  /// Runs update_pack and fails the test when it fails.
  std::string Pack(const std::vector<std::string>& arguments) const;

  /// Makes a package directory "name" with a script of `scriptText`, signed by `signer`. Extra arguments go
  /// to `update_pack make`. Returns the directory.
  std::string MakePackage(const std::string& name, const std::string& scriptText,
                          const std::string& signer = "signer",
                          const std::vector<std::string>& extra = {}) const;

  /// Lists and signs the finished "update.tar.gz" of a directory and puts a revocation list beside it, with
  /// other tools than the product's: what the product's would refuse to make can still arrive.
  void Sign(const std::string& directory) const;

  [[nodiscard]] std::string File(const std::string& name) const { return dir_.File(name); }
  [[nodiscard]] std::string Pki() const { return dir_.File("pki"); }

 private:
  support::TempDir dir_;
};

inline constexpr char kOkScript[] =
    "#!/bin/sh\nFeatureID=3\necho working on $1\ncp \"$1\" /mnt/payload.seen\necho OK done\n";

/// One board with daemon and main process, and material to ask it with.
class BoardTest : public testing::Test {
 protected:
  /// Copies a package directory onto the board as /mnt/update/NAME and returns the options that ask for it.
  std::vector<std::string> Deliver(const std::string& directory, const std::string& name) const;

  Board board_;
  Material material_;
};

}  // namespace system_test
