#pragma once

#include "support/QORUnicodeString.h"

/**
 * A stopwatch for one transfer. Copy a running one and stop the copy to read an intermediate figure.
 */
class ConnectionPerfo
{
public:
    void StartOfCount();
    void EndOfCount();
    /**
     * `text` holds a lead-in such as "sent " and becomes the whole statement: lead-in, bytes,
     * " byte(s) in ", seconds with milliseconds, " s (", rate, ")". `mode` is 0.
     */
    void GetConnectCountString(const long long& byteCount, QORUnicodeString& text, const int& mode) const;

private:
    long long startMilliseconds_ = 0;
    long long endMilliseconds_ = 0;
};
