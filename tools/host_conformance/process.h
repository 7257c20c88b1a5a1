// How the program tells the process of a clause what to do: by environment variables, which constructors of
// static objects can read too.
#ifndef HOST_CONFORMANCE_PROCESS_H
#define HOST_CONFORMANCE_PROCESS_H

namespace host_conformance {

constexpr const char* kClauseVariable = "HOST_CONFORMANCE_CLAUSE"; // the clause to try
constexpr const char* kReportVariable = "HOST_CONFORMANCE_REPORT"; // the descriptor that takes what Fail says
constexpr const char* kLogVariable = "HOST_CONFORMANCE_LOG";       // the file that the host logs to, if any
constexpr const char* kServiceVariable = "HOST_CONFORMANCE_SERVICE"; // NAME=ADDRESS:PORT, if any

// ReadLog() and what builds on it look at what is written from now on.
void RememberLogStart();

} // namespace host_conformance

#endif
