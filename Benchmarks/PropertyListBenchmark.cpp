// The property-list codec on the additional information of a typical supply event.

#include <benchmark/benchmark.h>

#include <Platform/PropertyList.h>

namespace {

const qx::Value& supplyInformation() {
  static const qx::Value information(qx::Dictionary{
      {"Event: Supply Color", "Cyan"},
      {"Event: Supply Level", "12"},
      {"Event: Supply Part Number", "W2030A"},
      {"Event: Supply Serial Number", "3145728-77A1"},
      {"Event: Supply State", "Very Low"},
      {"Event: Supply Type", "Toner Cartridge"},
      {"Event: Supply Yield", "2100"},
  });
  return information;
}

void encodeSupplyInformation(benchmark::State& state) {
  while (state.KeepRunning())
    benchmark::DoNotOptimize(qx::writeBinaryPropertyList(supplyInformation()));
}
BENCHMARK(encodeSupplyInformation);

void decodeSupplyInformation(benchmark::State& state) {
  const std::string bytes = qx::writeBinaryPropertyList(supplyInformation()).value();
  while (state.KeepRunning())
    benchmark::DoNotOptimize(qx::readBinaryPropertyList(bytes));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
  state.SetLabel(std::to_string(bytes.size()) + " bytes");
}
BENCHMARK(decodeSupplyInformation);

}  // namespace
