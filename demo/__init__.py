"""The play that scripts/demo shows."""
