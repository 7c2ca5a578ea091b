// A module that is not a provider.
extern "C" int SomethingElse() { return 0; }
