#include "app/calculation.h"

// Filled in by the calculation work: reads the scribbles, confirms the options and starts the worker.
void cb_calc(GtkWidget *button, gpointer toolbar) {
    (void)button;
    (void)toolbar;
}
