// Parse time of a "detect_webshell" policy listing 1,000 to 100,000
// customised scan paths: the parse should stay linear in the document size.

#include <string>

#include <benchmark/benchmark.h>
#include <json/json.h>

#include "sdk/JsonUtils.h"
#include "webshell/DetectWebshellPolicy.h"

namespace {

std::string PolicyWithPaths(int count)
{
    Json::Value doc(Json::objectValue);
    doc["feature_name"] = "detect_webshell";
    Json::Value& content = doc["content"];
    content["default_scan_paths"].append("/var/www");
    Json::Value& paths = content["customize_scan_paths"];
    paths = Json::Value(Json::arrayValue);
    for (int i = 0; i < count; ++i) {
        paths.append("/srv/www/site-" + std::to_string(i) + "/htdocs");
    }
    content["lib_version"] = "1";
    content["lib_url"] = "file:///srv/rules/webshell.yar";
    content["lib_hash"] = std::string(64, 'a');
    content["file_type"] = "php,jsp";
    content["auto_scan_task"]["task_condition"]["type"] = "interval";
    content["auto_scan_task"]["task_condition"]["interval_s"] = 3600;
    return SDK::JsonUtils::JsonToString(doc);
}

void BM_ParsePolicy(benchmark::State& state)
{
    const int count = static_cast<int>(state.range(0));
    const std::string text = PolicyWithPaths(count);
    for (auto _ : state) {
        Poco::AutoPtr<Engine::DetectWebshellPolicy> policy(new Engine::DetectWebshellPolicy("detect_webshell"));
        if (!policy->Parse(text) || policy->GetCustomizeScanPathList().size() != static_cast<size_t>(count)) {
            state.SkipWithError("the policy did not parse");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(text.size()));
    state.counters["paths"] = count;
}

}  // namespace

BENCHMARK(BM_ParsePolicy)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
