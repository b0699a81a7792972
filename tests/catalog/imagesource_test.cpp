// SPDX-License-Identifier: MIT
#include "catalog/imagesource.h"

#include <gtest/gtest.h>

namespace {
const QUrl base(QStringLiteral("http://127.0.0.1:8787/cdn"));

QString remote(const QString& reference) {
    const ImageLocation at = ImageSource::locate(base, reference, ImageOrigin::remote);
    return at.isRemote() ? at.url.toString(QUrl::FullyEncoded) : QStringLiteral("missing");
}
} // namespace

TEST(ImageSource, RemotePathsStayBelowTheBase) {
    EXPECT_EQ(remote("memes/a/Foo.JPG"), "http://127.0.0.1:8787/cdn/memes/a/Foo.JPG");
    EXPECT_EQ(remote("/memes//./Foo.jpg"), "http://127.0.0.1:8787/cdn/memes/Foo.jpg");
    EXPECT_EQ(remote("memes/x/../Foo.jpg"), "http://127.0.0.1:8787/cdn/memes/Foo.jpg");
    EXPECT_EQ(remote("../Foo.jpg"), "missing");
    EXPECT_EQ(remote("memes/../../Foo.jpg"), "missing");
    EXPECT_EQ(remote("memes\\..\\..\\Foo.jpg"), "missing");
    EXPECT_EQ(remote("memes/"), "missing");
    EXPECT_EQ(remote(""), "missing");
    EXPECT_EQ(remote("FILE:///etc/passwd"), "missing") << "local files need a local item";
    // Taken literally: an encoded dot-dot, a query or another host stay file names here.
    EXPECT_EQ(remote("%2e%2e/Foo.jpg"), "http://127.0.0.1:8787/cdn/%252e%252e/Foo.jpg");
    EXPECT_EQ(remote("a?b#c.jpg"), "http://127.0.0.1:8787/cdn/a%3Fb%23c.jpg");
    EXPECT_EQ(remote("http://elsewhere.example/x.jpg"),
              "http://127.0.0.1:8787/cdn/http:/elsewhere.example/x.jpg");

    const ImageLocation at = ImageSource::locate(base, "a/b/Cat.tar.PNG", ImageOrigin::remote);
    EXPECT_EQ(at.fileName, "Cat.tar.PNG");
    EXPECT_EQ(at.baseName(), "Cat.tar");
    EXPECT_EQ(at.suffix(), "png");
}
