// The process that brings the product up and serves its hardware service through the binder.
#include "host/serving.h"

int main(int count, char** arguments) { return quil::host::serve(count, arguments); }
