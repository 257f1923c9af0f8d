extern "C" int notTheFactory() { return 0; }
