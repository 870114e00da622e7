// The sample application's modes, one file each.
#pragma once

int RunInfoMode(int argc, char** argv);
int RunGraphMode(int argc, char** argv);
int RunProcessMode(int argc, char** argv);
int RunRecordMode(int argc, char** argv);
int RunCaptureMode(int argc, char** argv);
int RunAudioMode(int argc, char** argv);
int RunRenderMode(int argc, char** argv);

// The render mode's GPU stages (LUT, overlay, snapshots, recording).
void StartRenderGpuFeatures(void* render);
void FinishRenderGpuFeatures(void* render);
int RunDevicesMode(int argc, char** argv);
