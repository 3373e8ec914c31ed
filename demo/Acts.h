// The acts of the demonstration. Each starts the programs that it needs and ends them; one that
// cannot go on ends the demonstration.
#ifndef KYP_DEMO_ACTS_H
#define KYP_DEMO_ACTS_H

#include <string>

// Where the programs are that play along.
struct Cast {
    std::string kypserver;
    std::string component;  // examples/component.c
    std::string kyp;        // the command-line tool
    std::string peer;       // plays another virtual machine
};

void show_main_road(Cast const& cast);
void show_components(Cast const& cast);
void show_two_hosts(Cast const& cast);
void show_shared_memory(Cast const& cast);

#endif
