// velmar and velmarctl are one program: core/main.cpp chooses by the name it was started under.
#pragma once

// The control tool's entry (tools/velmarctl/velmarctl.cpp, linked into the same program):
// argv[0] is the name the program was started under, argv[1] the command. Returns the exit
// status.
int VelmarctlMain(int argc, char** argv);
