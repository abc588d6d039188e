// The one table of configuration file names, shared by the configuration service and the
// import of configuration archives.
#include <cstring>

#include "platform/config.h"

namespace {

struct ConfigFile {
  PARAM_TYPE_E type;
  const char* name;
};

const ConfigFile kConfigFiles[] = {
    {PARAM_JTBASE, "jtbase.xml"},
    {PARAM_OSD, "osd.xml"},
    {PARAM_STORE, "store.xml"},
    {PARAM_SERVER, "server.xml"},
    {PARAM_DIALUP, "dialup.xml"},
    {PARAM_LOCAL, "local.xml"},
    {PARAM_CLOCK, "clock.xml"},
    {PARAM_RSBASE, "rsbase.xml"},
    {PARAM_POWER, "power.xml"},
    {PARAM_VIDEOOUT, "videoout.xml"},
    {PARAM_IOSET, "ioset.xml"},
    {PARAM_UPGRADE, "upgrade.xml"},
    {PARAM_SPEED, "speed.xml"},
    {PARAM_GSENSOR, "gsensor.xml"},
    {PARAM_VOLAGE, "volage.xml"},
    {PARAM_TEMP, "temp.xml"},
    {PARAM_WIFI, "wifi.xml"},
    {PARAM_DISPLAY, "display.xml"},
    {PARAM_PTZ, "ptz.xml"},
    {PARAM_DST, "dst.xml"},
    {PARAM_MOTIONDETECT, "motiondetect.xml"},
    {PARAM_RECORD, "record.xml"},
    {PARAM_VIDEOLOST, "videoLost.xml"},
    {PARAM_DISKABNORMAL, "diskAbnormal.xml"},
    {PARAM_TTX, "ttx.xml"},
    {PARAM_ACCOUNT, "account.xml"},
};

}  // namespace

const char* ConfigFileName(PARAM_TYPE_E type) {
  for (const ConfigFile& f : kConfigFiles) {
    if (f.type == type) return f.name;
  }
  return nullptr;
}

int ConfigFileType(const char* name) {
  if (name == nullptr) return -1;
  for (const ConfigFile& f : kConfigFiles) {
    if (strcmp(name, f.name) == 0) return f.type;
  }
  return -1;
}
