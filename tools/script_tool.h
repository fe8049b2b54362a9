// The script subcommands of mr740cam, for the people who write camera
// scripts:
//
//   mr740cam check-script FILE        what the driver would reject, line by line
//   mr740cam scramble-script IN OUT   plain form to scrambled form
//   mr740cam unscramble-script IN OUT scrambled form to plain form
//
// "script check", "script scramble" and "script unscramble" are the same
// commands.
//
// check-script runs the driver's own script engine over the file, against a
// fake camera that accepts every request and reads 0 from every register,
// in virtual time, once per section. It prints one line per fault as
// "FILE:LINE: [SECTION] message" and a summary "N lines, M sections, K
// faults". A WAIT that the fake camera never satisfies is not reported: it
// depends on the camera, not on the script. Exit status 0 when clean, 1 when
// faults were found, 2 on a usage or file error.
//
// scramble-script and unscramble-script write OUT through a temporary file
// renamed into place, so OUT is either whole or untouched. Exit status 0 when
// written, 1 when the text cannot be converted (nothing is written), 2 on a
// usage or file error.
#pragma once

#include <cstdio>

// True for the subcommand names above, and for "script".
bool IsScriptToolCommand(const char* name);

// Runs the subcommand in argv[1] with its arguments after it, as main()
// received them. Reports go to stdout, errors and notes to stderr.
int RunScriptTool(int argc, char** argv);

// The same with the reports and the errors sent to `out` and `err`.
//
// check-script installs its fake host calls, switches the kernel clock to
// virtual time and collects the driver's debug print for the length of the
// check, and puts back the host calls, the clock mode and the debug print sink
// it found. It must not run while a driver of a real camera runs in the same
// process.
int RunScriptToolWithOutput(int argc, char** argv, FILE* out, FILE* err);
