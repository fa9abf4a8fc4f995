// The golden log: tests call every exported function, with success and into each of its refusals, and what the library
// writes is compared line by line with a file in golden/. A line stands there with its level, source file and function;
// line numbers, addresses and process ids are left out. The lines of entry and exit show who calls whom, and with which
// result.
//
// After an intended change of a text: PELMAR_GOLDEN=update ./test -R unit, then review the difference.
#pragma once

#include "library_test.h"

namespace scripted {

// Compares all that was logged since reset_golden_log() with golden/SUITE.TEST.log: all lines, or those with one of the
// words.
void expect_golden_log(const Lines& words = {});

// A test whose whole log is golden. It starts past the lines that only the first log line of a process brings.
template <typename Base>
class Golden : public Base {
 protected:
  Golden() {
    properties["persist.vendor.radio.adb_log_shell"] = "0";
    settle_log();
    reset_golden_log();
  }
  void TearDown() override {
    if (!Base::IsSkipped()) expect_golden_log(words_);
  }

  Lines words_;
};

}  // namespace scripted
