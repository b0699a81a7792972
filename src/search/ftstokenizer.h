// SPDX-License-Identifier: MIT
#pragma once

#include <memory>
#include <string_view>
#include <type_traits>

struct sqlite3;
struct fts5_tokenizer;
struct Fts5Tokenizer;

// SQLite's own unicode61 tokenizer (remove_diacritics 2), configured as the fts table uses it,
// so that code reading text outside SQL splits and folds it exactly as the index did.
class FtsTokenizer {
public:
    // The tokenizer registered on `db`; nullptr when FTS5 or unicode61 is unavailable.
    static std::unique_ptr<FtsTokenizer> create(sqlite3* db);
    ~FtsTokenizer();
    FtsTokenizer(const FtsTokenizer&) = delete;
    FtsTokenizer& operator=(const FtsTokenizer&) = delete;

    // Calls `onToken(std::string_view)` for every token of `utf8`, in order, as a document
    // is tokenised on insert (or as a prefix query term when `queryPrefix`). The view is
    // only valid during the call. False when the tokenizer reported an error.
    template <class OnToken>
    bool tokenize(std::string_view utf8, OnToken&& onToken, bool queryPrefix = false) const {
        return run(
            utf8, queryPrefix,
            [](void* ctx, int, const char* token, int size, int, int) -> int {
                (*static_cast<std::remove_reference_t<OnToken>*>(ctx))(
                    std::string_view(token, size_t(size)));
                return 0;
            },
            &onToken);
    }

private:
    using Callback = int (*)(void*, int, const char*, int, int, int);
    FtsTokenizer(std::unique_ptr<fts5_tokenizer> api, Fts5Tokenizer* instance);
    bool run(std::string_view utf8, bool queryPrefix, Callback callback, void* ctx) const;

    std::unique_ptr<fts5_tokenizer> m_api;
    Fts5Tokenizer* m_instance = nullptr;
};
