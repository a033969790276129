// Realistic configuration documents of a chosen size, for the benchmarks.
#ifndef PACTIVO_BENCH_DOCUMENT_GENERATOR_H_
#define PACTIVO_BENCH_DOCUMENT_GENERATOR_H_

#include "pactivo/configuration.h"

namespace pactivo::bench {

// `purposes` purposes with three SDKs each, texts in `languages` languages
// (three or four), and a base64 logo on every `logoEvery`-th SDK and, when
// `logoBytes` is not 0, one of that size for the document; plus all 28
// permission keys, three banner categories and Google Consent Mode mappings.
MainConfiguration generateConfiguration(int purposes, int logoEvery, int languages = 3,
                                        std::size_t logoBytes = 0);

}  // namespace pactivo::bench

#endif  // PACTIVO_BENCH_DOCUMENT_GENERATOR_H_
