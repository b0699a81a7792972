// SPDX-License-Identifier: MIT
#include "app/deletedatatest.h"

#include "collections/usercollections.h"

int runDeleteDataTest(QTextStream& out) {
    const UserCollections::DeleteOutcome outcome = UserCollections::deleteCloudData();
    out << "delete-data-test: ";
    switch (outcome.kind) {
    case UserCollections::DeleteOutcome::Kind::deleted:
        out << "deleted" << Qt::endl;
        return 0;
    case UserCollections::DeleteOutcome::Kind::pending:
        out << "pending" << Qt::endl;
        return 0;
    case UserCollections::DeleteOutcome::Kind::failed:
        break;
    }
    out << "failed: " << outcome.text << Qt::endl;
    return 1;
}
