"""The soak test's driver: clients, the shared ledger, the broker under test, the checks."""
