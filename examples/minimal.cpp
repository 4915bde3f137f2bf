// The smallest complete host: fetches one URL into memory and prints it.
#include <cstdio>

#include "tavhttpclient/tavhttpclient.hpp"

int main(int argc, char** argv) {
    tavhttp::client client;
    tavhttp::result result = client.get(argc == 2 ? argv[1] : "");
    std::puts(result ? result.body.c_str() : result.message().c_str());
    return result ? 0 : 1;
}
