"""Runs the daemon, simulated card buses, a broker and clients, and waits for what they do."""
