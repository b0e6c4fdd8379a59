#include "app/driver.h"

#ifdef _WIN32
#include <string>
#include <vector>

#include "platform/win32.h"
#endif

int main(int argc, char** argv) {
#ifdef _WIN32
    // Output as it is written ("\n" stays one byte, a print job from a pipe keeps its bytes), and
    // the arguments as UTF-8 from the UTF-16 command line, whatever the console's code page.
    platform::useBinaryStandardStreams();
    std::vector<std::string> arguments = platform::utf8Arguments(argc, argv);
    std::vector<char*> pointers;
    for (std::string& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    return runMain(static_cast<int>(arguments.size()), pointers.data());
#else
    return runMain(argc, argv);
#endif
}
