// keldra-matte, the headless matting tool: command-line parsing, reading the image and its scribbles
// or trimap into the engine's inputs, running the engine as the calculation job does, and writing the
// matted image atomically.
//
//   keldra-matte IMAGE SCRIBBLES -o OUT.png [options]
//   keldra-matte IMAGE --trimap TRIMAP -o OUT.png [options]
#ifndef KELDRA_CLI_MATTE_CLI_H
#define KELDRA_CLI_MATTE_CLI_H

#include <cstdio>
#include <string>

#include "matting/linear_solver.h"

// Exit statuses of keldra-matte.
enum MatteExit {
    MATTE_EXIT_OK = 0,     // the output file was written
    MATTE_EXIT_INPUT = 1,  // an input file is missing, unreadable or unusable, or the options do not fit it
    MATTE_EXIT_USAGE = 2,  // the command line is malformed or an option is out of range
    MATTE_EXIT_SOLVER = 3, // the sparse solver failed
    MATTE_EXIT_OUTPUT = 4  // the output file could not be written
};

// matte_options: one run. The numeric defaults are the options dialog's defaults.
struct matte_options {
    std::string image;      // the photograph, any format gdk-pixbuf reads
    std::string scribbles;  // layer PNG (opaque pixels are constraints), or empty with a trimap
    std::string trimap;     // grey trimap (0 background, 255 foreground), or empty
    std::string output;     // the PNG to write
    std::string foreground; // --foreground: also write the estimated foreground colours with the matte
                            // as alpha (a PNG to composite without colour fringes), or empty
    int levels = 1;         // down-scaling levels, 1 .. max(1, min(width, height) / 10)
    int steps = 1;          // levels recalculated on the way up, 1 .. levels
    double threshold = 0.02;
    double epsilon = 1e-7;
    int radius = 1;
    SolverKind solver = SOLVER_UMFPACK; // --solver: the linear solver of the solved levels
    bool alpha_only = false;            // write the grey matte instead of the image with the matte as alpha
    bool help = false;                  // --help: print the usage and do nothing else
};

// matte_usage: the usage text printed by --help and after a command-line error.
const char *matte_usage(void);

// parse_matte_args: reads argv[1 .. argc-1] into *opts (defaults first). Options take their value as
// the next argument or after '='. The checks that need no image (syntax, the fixed bounds of
// --steps >= 1, --threshold 0..0.5, --epsilon 1e-7..1e-5, --radius 1..5, --levels >= 1, --solver one of
// umfpack, cholmod, cg) happen here.
//   opts   output; error  output: a one-line description of the first problem
// Returns MATTE_EXIT_OK, or MATTE_EXIT_USAGE with *error set.
int parse_matte_args(int argc, char **argv, matte_options *opts, std::string *error);

// run_matte: loads the inputs, checks them against each other and against the options' bounds that
// depend on the image (levels, and a coarsest level at least one window wide), runs solveAlphaC2F as
// the calculation job does (or, with --solver cholmod or cg, solveAlphaC2FWith), with --foreground
// estimates the foreground colours from the matte (getForegroundRGBA), and writes each result through a
// temporary file renamed into place. Nothing is written until every result has been computed.
//   opts      input: a parsed command line
//   progress  modified: one line per pyramid level (level, size, seconds) and a final line
//   error     output: the message for a non-zero result (may span lines for solver failures)
// Returns a MatteExit status. On any failure no output file is created or replaced.
int run_matte(const matte_options &opts, FILE *progress, std::string *error);

#endif
