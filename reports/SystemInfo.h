#pragma once

#include "reports/SystemFigures.h"
#include "support/QORLists.h"
#include "support/QORUnicodeString.h"

/**
 * The report on the machine: operating system, processors, memory and swap. A figure that cannot be had is
 * shown as "-" or left out; no failure is reported as such.
 */
class SystemInfo
{
public:
    /** Forgets all figures. */
    void InitOrResetStat() { figures_ = SystemFigures(); }
    /** Asks the system for all figures, each whatever became of the others. */
    void ComputeStat();
    /** Asks for the figures and appends the report's lines. */
    void PrintSystemInfo(QORListValQORUnicodeString& out);

    /** Appends the lines that tell these figures. */
    static void PrintFigures(QORListValQORUnicodeString& out, const SystemFigures& figures);
    /** amount / divisor rounded down, or "-" when the amount is unknown (all ones). */
    static char* PrintReadable(char* buffer, unsigned int bufferSize, unsigned long long amount,
                               unsigned long long divisor);

private:
    SystemFigures figures_;
};
