// SPDX-License-Identifier: MIT
#include "search/ftstokenizer.h"

#include <sqlite3.h>

namespace {

fts5_api* fts5Api(sqlite3* db) {
    fts5_api* api = nullptr;
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, "SELECT fts5(?1)", -1, &stmt, nullptr) == SQLITE_OK) {
        sqlite3_bind_pointer(stmt, 1, &api, "fts5_api_ptr", nullptr);
        sqlite3_step(stmt);
    }
    sqlite3_finalize(stmt);
    return api;
}

} // namespace

std::unique_ptr<FtsTokenizer> FtsTokenizer::create(sqlite3* db) {
    fts5_api* api = fts5Api(db);
    if (!api || api->iVersion < 2)
        return nullptr;
    void* context = nullptr;
    auto tokenizer = std::make_unique<fts5_tokenizer>();
    if (api->xFindTokenizer(api, "unicode61", &context, tokenizer.get()) != SQLITE_OK)
        return nullptr;
    // The same arguments as the table's tokenize= option.
    const char* args[] = {"remove_diacritics", "2"};
    Fts5Tokenizer* instance = nullptr;
    if (tokenizer->xCreate(context, args, 2, &instance) != SQLITE_OK || !instance)
        return nullptr;
    return std::unique_ptr<FtsTokenizer>(new FtsTokenizer(std::move(tokenizer), instance));
}

FtsTokenizer::FtsTokenizer(std::unique_ptr<fts5_tokenizer> api, Fts5Tokenizer* instance)
    : m_api(std::move(api)), m_instance(instance) {}

FtsTokenizer::~FtsTokenizer() {
    m_api->xDelete(m_instance);
}

bool FtsTokenizer::run(std::string_view utf8, bool queryPrefix, Callback callback,
                       void* ctx) const {
    const int flags =
        queryPrefix ? FTS5_TOKENIZE_QUERY | FTS5_TOKENIZE_PREFIX : FTS5_TOKENIZE_DOCUMENT;
    return m_api->xTokenize(m_instance, ctx, flags, utf8.data(), int(utf8.size()), callback) ==
           SQLITE_OK;
}
