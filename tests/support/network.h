// Interfaces and routes of a test's own network, made with ip of the package iproute2. A command
// that does not work fails the test and says why. The test needs NET_ADMIN.
#ifndef TESTS_SUPPORT_NETWORK_H
#define TESTS_SUPPORT_NETWORK_H

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "support/daemon.h"
#include "support/files.h"

// Runs ip with these words, which blanks part.
inline void ip(const std::string& words) {
    constexpr char output[] = "/tmp/ip.out";
    std::vector<std::string> command = {"/usr/sbin/ip"};
    std::string word;
    for (std::istringstream in(words); in >> word;) command.push_back(word);
    const int status = run_process(command, {.output = output});
    ASSERT_EQ(status, 0) << "ip " << words << ": "
                         << (status == 127 ? "package iproute2 is missing\n" : read_file(output));
}

// Makes an Ethernet interface that is up, with a peer that is up as well.
inline void make_interface(const std::string& name) {
    const std::string peer = "peer_" + name;
    ip("link add " + name + " type veth peer name " + peer);
    ip("link set " + name + " up");
    ip("link set " + peer + " up");
}

#endif  // TESTS_SUPPORT_NETWORK_H
