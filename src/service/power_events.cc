#include "service/power_events.h"

void registerForSleepNotification(sd_bus*) {}
