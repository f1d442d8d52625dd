#pragma once

/**
 * The whole daemon: reads the command line, which is its whole configuration, and serves. The process' exit
 * status: 1 after the usage text, without a usable log directory, or when the daemon cannot start; else what
 * RuvelServer::MainDaemonLoop returns.
 */
int MainLoop(int argc, char** argv);
