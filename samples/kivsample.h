// The sample application's modes, one file each.
#pragma once

int RunInfoMode(int argc, char** argv);
int RunGraphMode(int argc, char** argv);
int RunProcessMode(int argc, char** argv);
int RunRecordMode(int argc, char** argv);
