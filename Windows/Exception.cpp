#include <Windows/Exception.h>

#include <host/Logger.h>

Exception::Exception(char* description) : m_pszDescription(description) {
    CLogger::PostLogEvent(LogTypeGeneral, LogSeverityFailure, m_pszDescription, nullptr);
}

Exception::~Exception() = default;

char* Exception::Description() { return m_pszDescription; }
