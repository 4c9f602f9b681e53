"""The one error the virtual router raises for a lab that does not work as asked."""


class RouterError(RuntimeError):
    pass
