#!/bin/bash
# layers_test.sh CHECKER: plants forbidden and allowed includes in a made-up tree; the checker must name exactly the
# forbidden lines. Otherwise a fault in its table or pattern would switch it off unnoticed.
set -euo pipefail
tree=$(mktemp -d "${TMPDIR:-/tmp}/layers.XXXXXX")
trap 'rm -rf "$tree"' EXIT

file() { # NAME LINE ...
  mkdir -p "$tree/src/${1%/*}"
  printf '%s\n' "${@:2}" >"$tree/src/$1"
}
refuse() { # WHY WANTED FOUND
  printf 'layers_test: %s\nwanted:\n%s\nfound:\n%s\n' "$@"
  exit 1
}

file log/run_log.cpp '#include "log/run_log.h"' '#include "velto/kel_clock.h"' '#include <sys/stat.h>' '#include "securec.h"'
file update/script_run.cpp '#include <string>' '#include "verify/package.h"' '#include "update/script_run.h"'
found=$("$1" "$tree") || refuse "allowed lines are refused" "" "$found"

file log/up.cpp '' '#include "update/script_run.h"'          # a higher room
file cfg/peer.h '  # include "cms/engine.h"'                 # an equal one
file log/angle.cpp '#include <frame/main.h>'                 # the other bracket
file update/file_name_check.cpp '#include "update/script_run.h"' # from a room's lower part to the rest of it
file msg/near.cpp '#include "../log/run_log.h"'              # round the room's name
file velto/crypto.cpp '#include <openssl/cms.h>'             # a library that is another room's
file attic/old.cpp ''                                        # a room without a tier
wanted=$(printf '%s\n' "$tree"/src/{attic/old.cpp:1,cfg/peer.h:1,log/angle.cpp:1,log/up.cpp:2,msg/near.cpp:1} \
  "$tree"/src/{update/file_name_check.cpp:1,velto/crypto.cpp:1})
if found=$("$1" "$tree"); then refuse "planted lines leave the exit status 0" "$wanted" "$found"; fi
lines=$(sed -E 's/^([^ ]*:[0-9]+): .*/\1/' <<<"$found")
[ "$lines" = "$wanted" ] || refuse "other lines than the planted ones" "$wanted" "$found"

if "$1" "$tree/nowhere" >"$tree/out"; then refuse "a tree without sources passes" "no sources" "$(cat "$tree/out")"; fi
