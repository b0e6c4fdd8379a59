#include "app/driver.h"

int main(int argc, char** argv) { return runMain(argc, argv); }
