#pragma once

#include <functional>
#include <string>
#include <string_view>
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

/** Moves one file to the target and fills in what became of it; the failure it returns too. */
using MoveOne = std::function<Failure(TransferOutcome& outcome, const std::string& target)>;
/**
 * Moves the files that the words name, to the last of them or, when there is only one word, to `target`.
 * One target for several files is a folder, but for `stream`, which takes them one after another.
 * Failures are reported and the summary is printed where it is wanted. The code to exit with.
 */
int MoveAll(std::vector<std::string> words, std::string target, std::string_view stream, bool isJson,
            const MoveOne& move);
/** The last name in a path, without slashes behind it. */
std::string NameIn(const std::string& path);
/** "name: resumed at 71 %". */
void SayResumed(const std::string& name, long long bytesBefore, long long bytesInAll);
