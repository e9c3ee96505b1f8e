"""The host application's package; this distribution ships its git utilities."""
