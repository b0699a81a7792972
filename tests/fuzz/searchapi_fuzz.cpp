// SPDX-License-Identifier: MIT
// The search and events endpoints under arbitrary request bodies and query strings. The first
// byte picks the endpoint (engine search, worker search, events); the rest is the body, or the
// query string for the worker. Every answer must be a status the endpoint documents, with a
// JSON body, and a refused events batch must store nothing.
#include "server/eventstore.h"
#include "server/searchapi.h"
#include "server/searchservice.h"
#include "server/wordnet.h"

#include <QDir>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>

namespace {

namespace fs = std::filesystem;

struct Server {
    fs::path dir;
    std::unique_ptr<EventStore> events;
    std::unique_ptr<WordNet> wordNet;
    std::unique_ptr<SearchService> search;
    std::unique_ptr<SearchApi> api;

    Server() {
        std::string base = (fs::temp_directory_path() / "searchapi-fuzz-XXXXXX").string();
        if (!::mkdtemp(base.data()))
            std::abort();
        dir = base;
        nlohmann::json items = nlohmann::json::array();
        for (const char* text : {"happy cat", "sad dog", "glad day", "angry bird", "cat nap"})
            items.push_back({{"id", std::string("m") + std::to_string(items.size())},
                             {"description", text},
                             {"full", "/f/1.png"},
                             {"thumb", "/t/1.webp"}});
        std::ofstream(dir / "index.json") << items.dump();
        events = EventStore::open(QString::fromStdString((dir / "data").string()));
        wordNet = WordNet::open(); // absent without wordnet-base: hybrid is keyword-only then
        search = std::make_unique<SearchService>(
            SearchService::Options{dir / "index.json", QString(), std::chrono::hours(1), 1000, 8},
            wordNet.get(), events.get());
        SearchApiLimits limits;
        limits.searchPerSecond = 0;
        limits.eventsPerSecond = 0;
        api =
            std::make_unique<SearchApi>(*search, events.get(), SearchApi::Keys{"key", ""}, limits);
    }
};

void expectJson(const HttpResponse& response, std::set<int> statuses) {
    if (!statuses.contains(response.status))
        std::abort();
    if (nlohmann::json::parse(response.body, nullptr, false).is_discarded())
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Server server;
    if (size == 0)
        return 0;
    const std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1);
    HttpRequest request;
    request.peer = "127.0.0.1";
    request.headers = {{"Authorization", "Bearer key"},
                       {"Content-Type", "application/json"},
                       {"x-install-id", "fuzz"}};
    switch (data[0] % 3) {
    case 0:
        request.method = "POST";
        request.path = "/indexes/memes/search";
        request.body = rest;
        expectJson(server.api->engineSearch(request), {200, 400, 413});
        break;
    case 1:
        request.method = "GET";
        request.path = "/v1/search";
        request.target = "/v1/search?" + rest;
        expectJson(server.api->workerSearch(request), {200, 400});
        break;
    default: {
        request.method = "POST";
        request.path = "/v1/events";
        request.body = rest;
        const HttpResponse response = server.api->postEvents(request);
        expectJson(response, {200, 400, 413});
        break;
    }
    }
    return 0;
}
