// The registry of mr740cam. The tool keeps the registry the driver reads and
// writes in a ".reg" file, so that every value the driver writes (control
// values, page settings, lens position, the values for outside readers)
// survives from one run of the tool to the next, and camera descriptions are
// loaded into it as the .reg files they ship as.
//
// The file is, in this order: the --registry FILE option of any command, the
// environment variable MR740_REGISTRY, or $XDG_STATE_HOME/mr740/registry.reg
// (~/.local/state/mr740/registry.reg when XDG_STATE_HOME is not set).
//
//   mr740cam registry load FILE.reg ...     merges camera descriptions into it
//   mr740cam registry export FILE.reg [KEY] writes the tree (or one key) as .reg text
//   mr740cam registry show [KEY]            prints the tree (or one key) as .reg text
//   mr740cam registry set KEY NAME VALUE    sets a value: dword:N (hexadecimal as
//                                           regedit writes it), or a string
//   mr740cam registry install [MODEL]       installs a built-in camera description
//                                           (mr740cam cameras lists them; the default
//                                           is the OV7670 webcam) with its scripts
//   mr740cam registry path                  prints which file is in use
//
// Drive C of the driver's "\??\C:\..." paths is the folder "drive-c" beside
// the registry file: installed scripts go to drive-c/Cameras/MODEL/.
//
// KEY is written as in a .reg file: HKEY_LOCAL_MACHINE\SYSTEM\... (HKLM\ too).
#pragma once

#include <cstdio>
#include <string>

// Removes a "--registry FILE" option from argv (updating argc) and returns
// its file, or the default above.
std::string TakeRegistryFileOption(int* argc, char** argv);

// Attaches the tool's registry file: loads it (a missing file is an empty
// registry) and keeps it up to date from then on; it is flushed at exit.
// False with a message on `err` when the file cannot be read.
bool OpenToolRegistry(const std::string& file, FILE* err);
// The host folder drive C stands for, beside the registry file.
std::string ToolDriveFolder(const std::string& registryFile);

bool IsRegistryToolCommand(const char* name);
// Runs "registry ..." (argv[1] is "registry"). Exit status 0 when done, 1
// when a file could not be loaded or written, 2 on a usage error.
int RunRegistryTool(int argc, char** argv, FILE* out, FILE* err);
