// Counts the blocks of memory that the product has, by the function that has allocated them: after
// hours of play there must not be more than after minutes.
//
// A block is the product's if the name of the function that called operator new has the product's
// namespace in it, as those of its containers have; texts and plain arrays that the standard
// library allocates in functions of its own are not seen. Parameters do not count: a node takes the
// product's records, too.
#pragma once
#include <map>
#include <string>

namespace test {

// Whether the function of that name in the program's symbols is one of these.
bool IsOfProduct(const char* symbol);

// Reads the symbols of the program, which its children then need not do.
void PrepareCensus();

// Counts what is allocated from now on, in the whole process.
void StartCensus();

// The blocks that have not been freed yet.
std::map<std::string, long> Census();

}  // namespace test
