#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "client/Failure.h"
#include "client/Server.h"

/** What put and get were asked for. */
struct TransferOptions {
    Server server;
    bool isAscii = false;
    bool isPassive = false;
    /** Straight into the target: no temporary name, no comparison afterwards. */
    bool isInPlace = false;
    bool isJson = false;
    /** As given: a duration. */
    std::string lifeTimeOut = "0";
};

/** What became of one file. */
struct TransferOutcome {
    std::string source;
    /** In full, once it is known. */
    std::string target;
    /** Of the file. */
    long long bytes = 0;
    /** What had been there from an earlier attempt. */
    long long resumedAt = 0;
    unsigned checkSum = 0;
    double seconds = 0;
    Failure failure = {};
};

void AddTransferOptions(CLI::App& app, TransferOptions& options);

std::string FormatOutcomesAsJson(const std::vector<TransferOutcome>& outcomes);
/** Reports the failures, prints the summary where it is wanted, and returns the code to exit with. */
int ConcludeTransfers(const std::vector<TransferOutcome>& outcomes, bool isJson);

/** The last name in a path, without slashes behind it. */
std::string NameIn(const std::string& path);
/** "name: resumed at 71 %". */
void SayResumed(const std::string& name, long long bytesBefore, long long bytesInAll);
