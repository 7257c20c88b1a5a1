// A stream type that exists so that application code links.
#ifndef WINDOWS_STREAM_H
#define WINDOWS_STREAM_H

class STREAM {
public:
    // Does nothing.
    void Release();
};

#endif
