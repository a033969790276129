// Realistic configuration documents of a chosen size, for the benchmarks.
#ifndef PACTIVO_BENCH_DOCUMENT_GENERATOR_H_
#define PACTIVO_BENCH_DOCUMENT_GENERATOR_H_

#include "pactivo/configuration.h"

namespace pactivo::bench {

// `purposes` purposes with three SDKs each, texts in three languages, and a
// base64 logo on every `logoEvery`-th SDK; plus all 28 permission keys, three
// banner categories and Google Consent Mode mappings.
MainConfiguration generateConfiguration(int purposes, int logoEvery);

}  // namespace pactivo::bench

#endif  // PACTIVO_BENCH_DOCUMENT_GENERATOR_H_
