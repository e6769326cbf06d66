// keldra-matte: mattes an image from its scribbles or trimap without the GUI (see cli/matte_cli.h).
#include <cstdio>
#include <string>

#include "cli/matte_cli.h"

int main(int argc, char **argv) {
    matte_options opts;
    std::string error;
    int status = parse_matte_args(argc, argv, &opts, &error);
    if (status == MATTE_EXIT_OK && opts.help) {
        fputs(matte_usage(), stdout);
        return MATTE_EXIT_OK;
    }
    if (status == MATTE_EXIT_OK) status = run_matte(opts, stderr, &error);
    if (status == MATTE_EXIT_USAGE)
        fprintf(stderr, "keldra-matte: %s (see keldra-matte --help)\n", error.c_str());
    else if (status != MATTE_EXIT_OK)
        fprintf(stderr, "keldra-matte: %s\n", error.c_str());
    return status;
}
