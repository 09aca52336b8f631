// (to be written) node implementations: branch
