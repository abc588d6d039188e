// velmarctl status and queue: what velmar is doing, read from its published state file, the
// disks' task databases (read-only) and its log.
#pragma once

// velmarctl status [--json]
int StatusCommand(int argc, char** argv);
// velmarctl queue
int QueueCommand(int argc, char** argv);

// For velmarctl watch, called once a second: prints the send's progress (a line, or a bar
// redrawn in place on a terminal) and a line for each new refusal count and give-up.
void PrintStateChanges();
