// The golden log: tests call every exported function, with success and with each refusal, and compare the library's log
// line by line with a file in golden/. A line has its level, source file and function; line numbers, addresses and
// process ids are replaced. The lines of entry and exit show the calls between functions and their results.
//
// A fixture that inherits Golden compares the log of each of its tests with golden/SUITE.TEST.log. After an intended
// change of a text, run PELMAR_GOLDEN=update ./test -R unit and review the difference.
#pragma once

#include "library_test.h"

namespace scripted {

// Compares the lines since reset_golden_log() with golden/SUITE.TEST.log: all of them, or those that contain one of the
// words.
void expect_golden_log(const Lines& words = {});

// A test whose whole log is compared, without the lines that the library writes once per process.
template <typename Base>
class Golden : public Base {
 protected:
  Golden() {
    properties["persist.vendor.radio.adb_log_shell"] = "0";
    log_one_time_lines();
    reset_golden_log();
  }
  void TearDown() override {
    if (!Base::IsSkipped()) expect_golden_log(words_);
  }

  Lines words_;
};

}  // namespace scripted
