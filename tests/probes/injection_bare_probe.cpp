// A program without a single import; ends with 42.
extern "C" int Start() { return 42; }
