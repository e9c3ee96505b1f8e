"""Utilities of the host application."""
