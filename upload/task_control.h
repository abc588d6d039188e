// What the upload engine may ask of task control. Task control implements it and hands
// itself to the engine, so the engine needs no knowledge of the control manager.
#pragma once

class ITaskControl {
 public:
  virtual ~ITaskControl() = default;
  // Transfer control of the tasks (seq, fileType): 0 off, 1 on, 2 delete. Safe from any
  // thread that holds none of task control's locks.
  virtual void SetFtpTrans(int fileType, unsigned int ctrType, int seq) = 0;
};
