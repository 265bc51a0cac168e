#include "frame/feature_process.h"

int main(int /*argc*/, char** argv) {
  return static_cast<int>(TolaOsFeatureProcessMain(argv[0], "update_active_main"));
}
