// The library's base exception: a description that is logged when the exception is made.
//
// Where the host's factory function of the same name is declared too (host/ErrorObject.h), the function hides
// the class: write "class Exception" or ExceptionBase there.
//
// Thread safety: a value.
// Lifetime: the text is neither copied nor freed. It must outlive the exception; pass a literal.
#ifndef WINDOWS_EXCEPTION_H
#define WINDOWS_EXCEPTION_H

class Exception {
public:
    // Keeps the pointer and posts the text (type 11, severity 1), whether or not the exception is thrown. A
    // copy posts nothing.
    Exception(char* description);
    Exception(const Exception&) = default;
    Exception& operator=(const Exception&) = default;
    ~Exception(); // NOLINT(performance-trivially-destructible): it is exported

    // The pointer that was given.
    char* Description();

private:
    char* m_pszDescription;
};

// The class under a name that no function hides.
typedef class Exception ExceptionBase;

#endif
