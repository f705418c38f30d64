// SPDX-License-Identifier: MIT
// Counts the words of standard input in a hash table and prints those asked for on the command line.
#include <vxutils/hashtable.h>

#include <iostream>
#include <string>

int main(int argc, char **argv) {
    INStringHashTable counts(256);
    std::string word;
    while (std::cin >> word) {
        void *found;
        if (!counts.getValueFromKey(word.c_str(), &found)) {
            found = new int(0);
            counts.addEntry(word.c_str(), found);
        }
        ++*static_cast<int *>(found);
    }
    std::cout << counts.getNumberOfKeys() << " different words\n";
    for (int i = 1; i < argc; ++i) {
        void *found;
        const bool known = counts.getValueFromKey(argv[i], &found);
        std::cout << argv[i] << ": " << (known ? *static_cast<int *>(found) : 0) << "\n";
    }
    counts.passAllPointers([](void *count) { delete static_cast<int *>(count); });
    return 0;
}
