#include <iostream>

#include <brantle/thornel/except.h>
#include <brantle/thornel/string_t.h>

/// Prints a text made by the library, and catches an exception that only the library's header knows.
int main() {
    try {
        std::cout << String_t("  thornel ").Trim() << '\n';
        throw Except("caught");
    } catch (std::exception const& exception) {
        std::cout << exception.what() << '\n';
    }
    return 0;
}
