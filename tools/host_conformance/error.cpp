// What host/ErrorObject.h asks. Of CLogException only that it is complete: a host may define another one,
// whose header then stands in the place of this one.
#include <host/ErrorObject.h>

#include <string>

#include "clause.h"

namespace host_conformance {

namespace {

CLogException* Make(const char* where, const char* what, char* extra) {
    CLogException* const error = Exception(where, what, extra);
    if (!error)
        Fail("expected an object from Exception, saw NULL");
    return error;
}

char noExtra[] = "";

void Thrown() {
    bool caught = false;
    try {
        throw Make("CClient::CClient", "Connection failed", nullptr);
    } catch (CLogException* error) {
        caught = true;
        delete error;
    }
    if (!caught)
        Fail("expected to catch what was thrown, saw nothing");
}

// Texts that live for the call.
CLogException* MakeFromTemporaries() {
    std::string where = "CClient::CClient";
    std::string what = "Connection failed";
    CLogException* const error = Make(&where[0], &what[0], noExtra);
    where.assign(where.size(), '-');
    what.assign(what.size(), '-');
    return error;
}

template <class Error>
auto CompareTexts(const Error& error, int) -> decltype(error.Where(), error.What(), void()) {
    const std::string where = error.Where();
    const std::string what = error.What();
    if (where != "CClient::CClient" || what != "Connection failed")
        Fail("expected \"CClient::CClient\" and \"Connection failed\", saw \"%s\" and \"%s\"", where.c_str(),
             what.c_str());
}

template <class Error>
void CompareTexts(const Error&, long) {} // another class, which shows its texts in its own way

void Texts() {
    CLogException* const error = MakeFromTemporaries();
    CompareTexts(*error, 0);
    delete error;
}

void Owned() {
    CLogException* const one = Make("CClient::CClient", "Connection failed", noExtra);
    CLogException* const other = Make("CWinThread::CWinThread", "No pipe", noExtra);
    if (one == other)
        Fail("expected an object of its own from each call of Exception, saw the same one twice");
    delete one;
    delete other;
}

// Nothing is deleted here: whether it can be is what the clauses above try.
void Threads() {
    InThreads([](int) {
        for (int i = 0; i < 50; ++i)
            Make("CClient::CClient", "Connection failed", noExtra);
    });
}

} // namespace

const Clause errorClauses[] = {
    {"error.thrown", "Exception(where, what, NULL) returns an object that can be thrown, caught and deleted",
     NeedsNothing, Thrown},
    {"error.texts", "the error object keeps its texts, which live for the call only", NeedsNothing, Texts},
    {"error.owned", "each error object belongs to whoever catches it", NeedsNothing, Owned},
    {"error.threads", "several threads make error objects at once", NeedsNothing, Threads},
    {nullptr, nullptr, NeedsNothing, nullptr}};

} // namespace host_conformance
