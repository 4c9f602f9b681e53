"""The SAS simulator (sas_sim.py, a program of its own, also started by the C++
tests) and its Python side: client.SasSim, the test PKI (pki), the reply
bodies (replies)."""
