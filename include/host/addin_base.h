#pragma once

#include "host/host_export.h"

// The numbered configuration events of the host, 0 to 9.
using ConfigProcessorMode = int;

// What the host hands along with a configuration event.
struct ControllerConfig;

// The host's service call-back, given to an add-in's entry points.
using HostCallback = int (*)(int, const void*, int, void*, int, int*);

// Base of an add-in's object. The host delivers configuration events on one thread of its own.
class ORVA_HOST_API AddinBase {
 public:
  virtual int OnConfigEvent(ConfigProcessorMode mode, ControllerConfig* config) = 0;
  virtual ~AddinBase();

 protected:
  // Asks the host to deliver the events whose bits are set in `mask`. A second call under a known
  // name replaces the first. 0, or a negative status. The object must outlive the host's use of it.
  int AttachConfigProcessor(const char* name, unsigned mask);
};
