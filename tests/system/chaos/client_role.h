// The role of a client process in a chaos run, led by lines on its standard input.
//
//   storm    opens what the party opens and runs its workers
//   pause    answers "paused" when no worker is in a call any more
//   verify   checks, closes everything and answers with a report, one line of JSON
//
// The end of the input ends the process.
#pragma once

namespace pelmar::system_test::chaos {

// Arguments: the seed, and the number of the process, of which the last is hydra's.
int run_client(char** arguments);

}  // namespace pelmar::system_test::chaos
