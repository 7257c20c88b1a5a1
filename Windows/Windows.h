// Everything that libWindows.so.0 offers to application code.
#ifndef WINDOWS_WINDOWS_H
#define WINDOWS_WINDOWS_H

#include <Windows/Client.h>
#include <Windows/ClientSocket.h>
#include <Windows/CmdTarget.h>
#include <Windows/Exception.h>
#include <Windows/MemFile.h>
#include <Windows/MemoryException.h>
#include <Windows/Mutex.h>
#include <Windows/ObList.h>
#include <Windows/PtrArray.h>
#include <Windows/RefCountedObject.h>
#include <Windows/Server.h>
#include <Windows/ServerSocket.h>
#include <Windows/SingleLock.h>
#include <Windows/Socket.h>
#include <Windows/SocketException.h>
#include <Windows/Stream.h>
#include <Windows/StringArray.h>
#include <Windows/Trace.h>
#include <Windows/WinThread.h>
#include <Windows/XString.h>
#include <Windows/bstr.h>
#include <Windows/event.h>
#include <Windows/stdafx.h>
#include <Windows/synchelpers.h>
#include <Windows/types.h>
#include <Windows/variant.h>

#endif
