// The entry point's work: choose the mode, parse, print the banner, connect, run, exit code.
#pragma once

int runMain(int argc, char** argv);
