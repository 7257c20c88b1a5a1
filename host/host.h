// Everything that the host process supplies to libWindows.so.0. See README.md in this folder.
#ifndef HOST_HOST_H
#define HOST_HOST_H

#include <host/ErrorObject.h>
#include <host/Logger.h>
#include <host/ServiceRegistry.h>
#include <host/Time.h>

#endif
