// The host's error object and its factory: what CWinThread and CClient throw.
//
// A contract, no code but the inline members of the error object.
//
// This header stands apart from the others because the factory bears the name of the library's class
// Exception and hides it where both are visible: there, name the class as "class Exception" or ExceptionBase.
#ifndef HOST_ERROROBJECT_H
#define HOST_ERROROBJECT_H

#include <string>

// What a failed construction throws, always as a pointer: handlers say catch (CLogException* error) and
// delete it. The library uses nothing of this class but that it is complete, so a host may define it
// otherwise, as long as it has no virtual function that is defined out of line: the library would then import
// its type information.
class CLogException {
public:
    // Copies the three texts, of which any may be NULL.
    CLogException(const char* where, const char* what, const char* extra)
        : m_where(where ? where : ""), m_what(what ? what : ""), m_extra(extra ? extra : "") {}

    // The function that failed, for example "CClient::CClient".
    const char* Where() const { return m_where.c_str(); }

    // The message, for example "Connection failed".
    const char* What() const { return m_what.c_str(); }

    // The third text, or "". The library passes none.
    const char* Extra() const { return m_extra.c_str(); }

private:
    std::string m_where;
    std::string m_what;
    std::string m_extra;
};

// Makes an error object; the library throws the pointer at once, and whoever catches it owns it. The texts
// live for the call (the library passes literals, and NULL as extra).
//
// Called by a thread that constructs a CWinThread or a CClient, with the new object's suspension lock held
// and no other; never before main unless such an object is static. It may block and allocate; it must not
// return NULL and must not throw.
CLogException* Exception(const char* where, const char* what, char* extra);

#endif
