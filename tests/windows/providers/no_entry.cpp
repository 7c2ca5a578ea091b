// A module that is no provider at all.
extern "C" int SomethingElse() { return 0; }
