// The demonstration, told while it is driven. Run it through demo.sh, which gives it private
// namespaces.
//   kyp_demo PROGRAM-FOLDER [--verbose]
#include <cstdio>
#include <cstring>
#include <string>

#include "Acts.h"
#include "Story.h"

int main(int argc, char** argv) {
    bool const verbose = argc == 3 && strcmp(argv[2], "--verbose") == 0;
    if (argc < 2 || (argc > 2 && !verbose)) {
        fprintf(stderr, "usage: kyp_demo PROGRAM-FOLDER [--verbose]\n");
        return 2;
    }
    if (!open_story(verbose)) return 1;

    std::string const folder = argv[1];
    Cast const cast = {folder + "/kypserver", folder + "/example_component", folder + "/kyp",
                       folder + "/kyp_ivshm_peer"};
    say("First act: clients and a server\n\n");
    show_main_road(cast);
    say("\n\nSecond act: a component\n\n");
    show_components(cast);
    say("\n\nThird act: two hosts\n\n");
    show_two_hosts(cast);
    say("\n\nFourth act: another virtual machine\n\n");
    show_shared_memory(cast);
    return 0;
}
