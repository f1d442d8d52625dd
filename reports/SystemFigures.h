#pragma once

#include <string>
#include <string_view>

#include "reports/ReportFields.h"

/** What is known of one machine; each figure may be unknown without the others. */
struct SystemFigures {
    std::string operatingSystem;   // name, release, version and machine; empty: unknown
    int processorsConfigured = -1; // -1: unknown
    int processorsOnline = -1;
    std::string processorDescription; // architecture, type, speed; empty: unknown
    // In bytes.
    unsigned long long totalMemory = ReportFields::Unknown;
    unsigned long long freeMemory = ReportFields::Unknown; // what could be had without swapping
    unsigned long long usedMemory = ReportFields::Unknown;
    unsigned long long totalSwap = ReportFields::Unknown;
    unsigned long long freeSwap = ReportFields::Unknown;
    unsigned long long usedSwap = ReportFields::Unknown;

    /** Takes memory and swap from the kernel's table of them ("MemTotal:  16316412 kB" a line). */
    void ReadMemory(std::string_view table);
    /** Describes the first processor of the kernel's table of them ("model name : ..." a line). */
    void ReadProcessor(std::string_view table, std::string_view architecture);
};
