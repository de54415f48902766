#include "keyloft/entry.hpp"

int main(int argc, char** argv) {
    return keyloft::runEntry(argc, argv);
}
